#include "host/transfer/image_reader.h"

#include <algorithm>
#include <cassert>

#include "host/transfer/grain_place.h"
#include "host/transfer/plain_grains.h"
#include "yx/error.h"

namespace kelm::host {

ImageReader::ImageReader(RawSource& source, SafeDisk& disk, ImageLength const& length,
                         TransferProgress& progress, ChangedGrains const* changes)
    : m_source(source),
      m_disk(disk),
      m_length(length),
      m_progress(progress),
      m_changes(changes),
      m_grainSizeBytes(static_cast<int>(disk.getGrainSizeBytes())) {
    verifyFits(source.getLength());
}

void ImageReader::verifyFits(__int64 imageBytes) const {
    // For each grain, so nothing is put into words before it is needed.
    auto const refuse = [imageBytes](char const* message, char const* limitName, __int64 limit) {
        throw yx::CIOError(yx::CIOError::NotAllowed, message,
                           yx::CProps()
                               .add("imageSize", yx::toString(imageBytes))
                               .add(limitName, yx::toString(limit)),
                           nullptr);
    };
    if (imageBytes > m_disk.getSizeBytes())
        refuse("The image is larger than the disk.", "diskSize", m_disk.getSizeBytes());
    if (m_length.bytes >= 0 && imageBytes > m_length.bytes)
        refuse("The image is longer than expected.", "expectedSize", m_length.bytes);
}

void ImageReader::verifyIsNotShort() const {
    if (m_length.mayBeShorter || m_doneBytes >= m_length.bytes)
        return;
    throw yx::CIOError(yx::CIOError::NotAllowed, "The image ended early.",
                       yx::CProps()
                           .add("imageSize", yx::toString(m_doneBytes))
                           .add("expectedSize", yx::toString(m_length.bytes)),
                       nullptr);
}

/// Returns false, at the end of the image, if there is none.
bool ImageReader::skipToNextChange() {
    __int64 const imageBytes = m_source.getLength();
    assert(imageBytes >= 0);
    __int64 const endGrainIndex = (imageBytes + m_grainSizeBytes - 1) / m_grainSizeBytes;
    __int64 const next = m_changes->findNextToRead(m_nextGrainIndex, endGrainIndex);
    m_doneBytes = next < 0 ? imageBytes : next * m_grainSizeBytes;
    m_source.skipTo(m_doneBytes);
    if (next >= 0)
        m_nextGrainIndex = next;
    return next >= 0;
}

void ImageReader::passHole() {
    assert(!m_changes);
    while (true) {
        __int64 const hole = m_source.findHoleBytes() / m_grainSizeBytes;
        if (hole == 0)
            return;
        __int64 const beforeLast = (m_source.getLength() - 1) / m_grainSizeBytes - m_nextGrainIndex;
        __int64 const maxGrains = std::min(hole, beforeLast);
        __int64 const grains = m_countAbsent
                                   ? m_countAbsent(m_nextGrainIndex, maxGrains)
                                   : countUnwrittenGrains(m_disk, m_nextGrainIndex, maxGrains);
        if (grains <= 0)
            return;
        m_nextGrainIndex += grains;
        m_doneBytes += grains * m_grainSizeBytes;
        m_source.skipTo(m_doneBytes);
        m_progress.advanceTo(m_doneBytes);
    }
}

bool ImageReader::readNext(yx::TBuffer<unsigned char>& grain, __int64& grainIndex) {
    if (m_changes && !skipToNextChange()) {
        verifyIsNotShort();
        return false;
    }
    if (m_skipsHoles)
        passHole();
    grain.setUsed(m_grainSizeBytes);
    bool isHole = false;
    int const count = m_source.readNext(grain.getData(), m_grainSizeBytes, isHole);
    if (count == 0) {
        verifyIsNotShort();
        return false;
    }
    if (!isHole)
        m_progress.addRead(count);
    // Only the last grain may be short.
    assert(!m_isAtEnd && count <= m_grainSizeBytes);
    assert(m_doneBytes == m_nextGrainIndex * m_grainSizeBytes);
    m_isAtEnd = count < m_grainSizeBytes;
    grainIndex = m_nextGrainIndex++;
    m_doneBytes += count;
    verifyFits(m_doneBytes);
    if (m_isAtEnd) {
        if (isHole)
            fillWithZeros(grain, 0, count);
        completeLastGrain(grain, grainIndex, count);
    } else if (isHole) {
        grain.setUsed(0);
    }
    return true;
}

void ImageReader::completeLastGrain(yx::TBuffer<unsigned char>& grain, __int64 grainIndex,
                                    int imageBytes) {
    fillWithZeros(grain, imageBytes, m_grainSizeBytes);
    readWithGrainPlace(m_disk, grainIndex * m_grainSizeBytes + imageBytes,
                       grain.getData() + imageBytes, bytesInDisk(m_disk, grainIndex) - imageBytes);
}

} // namespace kelm::host

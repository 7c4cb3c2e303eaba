#include "host/transfer/image_reader.h"

#include <cassert>

#include "host/transfer/plain_grains.h"
#include "yx/error.h"

namespace kelm::host {

ImageReader::ImageReader(RawSource& source, SafeDisk& disk)
    : m_source(source), m_disk(disk), m_grainSizeBytes(static_cast<int>(disk.getGrainSizeBytes())) {
    verifyFits(source.getLength());
}

void ImageReader::verifyFits(__int64 imageBytes) const {
    if (imageBytes <= m_disk.getSizeBytes())
        return;
    throw yx::CIOError(yx::CIOError::NotAllowed, "The image is larger than the disk.",
                       yx::CProps()
                           .add("imageSize", yx::toString(imageBytes))
                           .add("diskSize", yx::toString(m_disk.getSizeBytes())),
                       nullptr);
}

bool ImageReader::readNext(yx::TBuffer<unsigned char>& grain, __int64& grainIndex) {
    grain.setUsed(m_grainSizeBytes);
    bool isHole = false;
    int const count = m_source.readNext(grain.getData(), m_grainSizeBytes, isHole);
    if (count == 0)
        return false;
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
    m_disk.read(grainIndex * m_grainSizeBytes + imageBytes, grain.getData() + imageBytes,
                bytesInDisk(m_disk, grainIndex) - imageBytes);
}

} // namespace kelm::host

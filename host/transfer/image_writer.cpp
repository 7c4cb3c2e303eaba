#include "host/transfer/image_writer.h"

#include <algorithm>
#include <array>
#include <cassert>

#include <sys/uio.h>

#include "host/transfer/export_run.h"

namespace kelm::host {

ImageWriter::ImageWriter(SafeDisk const& disk, RawTarget& target, __int64 imageBytes)
    : m_target(target), m_grainSizeBytes(disk.getGrainSizeBytes()), m_imageBytes(imageBytes) {
    assert(imageBytes >= 0 && imageBytes <= disk.getSizeBytes());
}

int ImageWriter::bytesOf(__int64 grainIndex) const {
    assert(grainIndex >= 0 && startOf(grainIndex) < m_imageBytes);
    return static_cast<int>(std::min(m_grainSizeBytes, m_imageBytes - startOf(grainIndex)));
}

void ImageWriter::beginEarly() {
    // Written once, before the first worker looks: later calls come while workers read the flags.
    if (m_hasBegun)
        return;
    m_canWriteEarly = m_target.beginWritingAnywhere();
    m_hasBegun = true;
}

void ImageWriter::writeEarly(__int64 firstGrainIndex, std::span<Grain const> grains) const {
    assert(m_hasBegun && !grains.empty() && grains.size() <= ExportRun::kMaxGrains);
    if (!m_canWriteEarly)
        return;
    std::array<iovec, ExportRun::kMaxGrains> parts{};
    __int64 grainIndex = firstGrainIndex;
    for (std::size_t i = 0; i < grains.size(); ++i, ++grainIndex) {
        assert(grains[i]->getUsed() >= bytesOf(grainIndex));
        // Nothing is read into it.
        parts[i].iov_base = const_cast<unsigned char*>(grains[i]->getData());
        parts[i].iov_len = static_cast<std::size_t>(bytesOf(grainIndex));
    }
    m_target.writeAt(startOf(firstGrainIndex), std::span(parts.data(), grains.size()));
}

void ImageWriter::skipTo(__int64 grainIndex) {
    assert(startOf(grainIndex) >= m_doneBytes);
    m_target.writeZeros(startOf(grainIndex) - m_doneBytes);
    m_doneBytes = startOf(grainIndex);
}

void ImageWriter::write(__int64 grainIndex, yx::TBuffer<unsigned char> const* grain) {
    assert(!grain || grain->getUsed() >= bytesOf(grainIndex));
    skipTo(grainIndex);
    if (grain)
        m_target.write(grain->getData(), bytesOf(grainIndex));
    else
        m_target.writeZeros(bytesOf(grainIndex));
    m_doneBytes += bytesOf(grainIndex);
}

void ImageWriter::writeLate(__int64 grainIndex, yx::TBuffer<unsigned char> const* grain) {
    if (!grain || !m_canWriteEarly) {
        write(grainIndex, grain);
        return;
    }
    skipTo(grainIndex);
    m_target.passWritten(bytesOf(grainIndex));
    m_doneBytes += bytesOf(grainIndex);
}

void ImageWriter::finish() {
    assert(m_doneBytes <= m_imageBytes);
    m_target.writeZeros(m_imageBytes - m_doneBytes);
    m_target.finish();
}

} // namespace kelm::host

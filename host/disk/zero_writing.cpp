#include "host/disk/zero_writing.h"

#include <cassert>

namespace kelm::host {

using Content = DiskWriting::Content;

ZeroWriting::ZeroWriting(CVMDKDisk& disk, DiskLayout const& layout, DiskReading& reading,
                         DiskWriting& writing)
    : m_disk(disk),
      m_layout(layout),
      m_reading(reading),
      m_writing(writing),
      m_hasParent(!disk.getParentDiskMainURI().isEmpty()),
      m_preparer(disk.createDataPreparer()) {}

void ZeroWriting::writeInGrain(__int64 positionBytes, int bytes) {
    __int64 const grainIndex = positionBytes / m_layout.getGrainSizeBytes();
    assert(bytes >= 1);
    assert((positionBytes + bytes - 1) / m_layout.getGrainSizeBytes() == grainIndex);
    if (!m_reading.isGrainWritten(grainIndex))
        return;
    __int64 const grainStartBytes = grainIndex * m_layout.getGrainSizeBytes();
    int const grainBytes = m_layout.getGrainBytesAt(grainStartBytes);
    m_grain.setUsed(static_cast<int>(m_layout.getGrainSizeBytes()));
    unsigned char* const grain = m_grain.getData();
    unsigned char* const range = grain + (positionBytes - grainStartBytes);
    auto const rangeSize = static_cast<std::size_t>(bytes);
    m_reading.read(grainStartBytes, grain, grainBytes);
    if (yx::isAllZero(range, rangeSize))
        return;
    yx::initMemory(range, 0, rangeSize);
    m_writing.reserveRoom(positionBytes, bytes);
    if (!m_hasParent || !yx::isAllZero(grain, static_cast<std::size_t>(grainBytes)))
        m_writing.write(positionBytes, range, bytes, Content::Changes);
    else if (m_layout.isWholeGrain(grainIndex))
        storeGrain(grainIndex, Content::Changes);
    else
        zeroShortGrain(grainStartBytes, grainBytes);
}

void ZeroWriting::storeGrain(__int64 grainIndex, Content content) {
    m_writing.writePrepared(grainIndex,
                            m_zeroGrain.get(*m_preparer, m_layout.getGrainSizeBytes(), grainIndex),
                            content);
}

void ZeroWriting::zeroShortGrain(__int64 grainStartBytes, int grainBytes) {
    unsigned char* const grain = m_grain.getData();
    m_reading.read(grainStartBytes, grain, grainBytes);
    // Prepared data are for whole grains only. What the grain holds now gives it a place, where
    // zeros are stored like anything else; a power cut between leaves the old content.
    m_writing.write(grainStartBytes, grain, grainBytes, Content::Changes);
    m_disk.flushChanges();
    yx::initMemory(grain, 0, static_cast<std::size_t>(grainBytes));
    m_writing.write(grainStartBytes, grain, grainBytes, Content::Changes);
}

} // namespace kelm::host

#include "host/disk/zero_writing.h"

#include <cassert>

namespace kelm::host {

ZeroWriting::ZeroWriting(CVMDKDisk& disk, DiskLayout const& layout, ChainGrains& grains,
                         DiskReading& reading, DiskWriting& writing)
    : m_disk(disk),
      m_layout(layout),
      m_grains(grains),
      m_reading(reading),
      m_writing(writing),
      m_hasParent(!disk.getParentDiskMainURI().isEmpty()),
      m_preparer(disk.createDataPreparer()) {}

void ZeroWriting::writeInGrain(__int64 positionBytes, int bytes) {
    assert(bytes >= 1);
    if (!m_reading.isWritten(positionBytes, bytes))
        return;
    FileGrain const fileGrain = m_grains.at(positionBytes);
    assert(positionBytes + bytes <= fileGrain.endBytes);
    int const grainBytes = fileGrain.getSizeBytes();
    m_grain.setUsed(grainBytes);
    unsigned char* const grain = m_grain.getData();
    unsigned char* const range = grain + (positionBytes - fileGrain.startBytes);
    auto const rangeSize = static_cast<std::size_t>(bytes);
    m_reading.read(fileGrain.startBytes, grain, grainBytes);
    if (yx::isAllZero(range, rangeSize))
        return;
    yx::initMemory(range, 0, rangeSize);
    m_writing.reserveRoom(positionBytes, bytes);
    if (!m_hasParent || !yx::isAllZero(grain, static_cast<std::size_t>(grainBytes)))
        m_writing.write(positionBytes, range, bytes, DiskWriting::Content::Changes);
    else if (fileGrain.isGrainOfDisk)
        storeGrain(fileGrain.startBytes / m_layout.getGrainSizeBytes(),
                   DiskWriting::Content::Changes);
    else
        zeroOtherGrain(fileGrain);
}

void ZeroWriting::storeGrain(__int64 grainIndex, DiskWriting::Content content) {
    m_writing.writePrepared(grainIndex,
                            m_zeroGrain.get(*m_preparer, m_layout.getGrainSizeBytes(), grainIndex),
                            content);
}

void ZeroWriting::zeroOtherGrain(FileGrain const& fileGrain) {
    unsigned char* const grain = m_grain.getData();
    int const grainBytes = fileGrain.getSizeBytes();
    m_reading.read(fileGrain.startBytes, grain, grainBytes);
    // Only a grain of the disk has a prepared form. What this one holds now gives it a place, where
    // zeros are stored like anything else; a power cut between leaves the old content.
    m_writing.write(fileGrain.startBytes, grain, grainBytes, DiskWriting::Content::Changes);
    m_disk.flushChanges();
    yx::initMemory(grain, 0, static_cast<std::size_t>(grainBytes));
    m_writing.write(fileGrain.startBytes, grain, grainBytes, DiskWriting::Content::Changes);
}

} // namespace kelm::host

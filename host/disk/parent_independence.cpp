#include "host/disk/parent_independence.h"

#include <cassert>

namespace kelm::host {

ParentIndependence::ParentIndependence(CVMDKDisk& disk, DiskLayout const& layout,
                                       DiskReading& reading, PreparedReading& preparedReading,
                                       DiskWriting& writing, ZeroWriting& zeroWriting)
    : m_layout(layout),
      m_reading(reading),
      m_preparedReading(preparedReading),
      m_writing(writing),
      m_zeroWriting(zeroWriting),
      m_preparer(disk.createDataPreparer()) {}

void ParentIndependence::makeGrainIndependent(__int64 grainIndex) {
    if (m_writing.hasUnflushedWrites())
        m_writing.flush();
    assert(!m_writing.hasUnflushedWrites());
    if (m_reading.isGrainWrittenHere(grainIndex) || !m_reading.isGrainWritten(grainIndex))
        return;
    m_writing.reserveRoom(grainIndex * m_layout.getGrainSizeBytes(), 1);
    // `CVMDKDisk::makeGrainIndependentOfParent` would take a record from an encrypted parent
    // without its padding.
    if (!m_preparedReading.tryRead(grainIndex, m_grain)) {
        copyPlain(grainIndex);
        return;
    }
    m_preparer->patchGrainIndexInPreparedGrainData(m_grain, grainIndex);
    m_writing.writePrepared(grainIndex, m_grain, DiskWriting::Content::Stays);
}

void ParentIndependence::copyPlain(__int64 grainIndex) {
    __int64 const grainStartBytes = grainIndex * m_layout.getGrainSizeBytes();
    int const grainBytes = m_layout.getGrainBytesAt(grainStartBytes);
    assert(grainBytes >= 1);
    m_grain.setUsed(grainBytes);
    m_reading.read(grainStartBytes, m_grain.getData(), grainBytes);
    if (!yx::isAllZero(m_grain.getData(), static_cast<std::size_t>(grainBytes)))
        m_writing.write(grainStartBytes, m_grain.getData(), grainBytes,
                        DiskWriting::Content::Stays);
    else if (m_layout.isWholeGrain(grainIndex))
        m_zeroWriting.storeGrain(grainIndex, DiskWriting::Content::Stays);
}

} // namespace kelm::host

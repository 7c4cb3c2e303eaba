#include "host/disk/parent_independence.h"

#include <cassert>

namespace kelm::host {

ParentIndependence::ParentIndependence(CVMDKDisk& disk, DiskLayout const& layout,
                                       ChainGrains& grains, DiskReading& reading,
                                       PreparedReading& preparedReading, DiskWriting& writing,
                                       ZeroWriting& zeroWriting)
    : m_layout(layout),
      m_grains(grains),
      m_reading(reading),
      m_preparedReading(preparedReading),
      m_writing(writing),
      m_zeroWriting(zeroWriting),
      m_preparer(disk.createDataPreparer()) {}

void ParentIndependence::makeGrainIndependent(__int64 grainIndex) {
    flushUnwrittenChanges();
    if (!m_reading.isGrainWrittenHere(grainIndex) && m_reading.isGrainWritten(grainIndex))
        copyGrain(grainIndex);
}

void ParentIndependence::holdGrain(__int64 grainIndex) {
    flushUnwrittenChanges();
    if (!m_reading.isGrainWrittenHere(grainIndex))
        copyGrain(grainIndex);
}

void ParentIndependence::holdPreparedGrain(__int64 grainIndex,
                                           yx::TBuffer<unsigned char>& prepared) {
    if (beginHolding(grainIndex))
        storePrepared(grainIndex, prepared);
}

void ParentIndependence::holdEncipheredGrain(__int64 grainIndex,
                                             yx::TBuffer<unsigned char> const& enciphered) {
    if (beginHolding(grainIndex))
        m_writing.writeEnciphered(grainIndex, enciphered, DiskWriting::Content::Stays);
}

/// Returns false where the disk holds the whole grain already.
bool ParentIndependence::beginHolding(__int64 grainIndex) {
    flushUnwrittenChanges();
    if (m_reading.isGrainWrittenHere(grainIndex))
        return false;
    m_writing.reserveRoom(grainIndex * m_layout.getGrainSizeBytes(), m_layout.getGrainSizeBytes());
    return true;
}

void ParentIndependence::flushUnwrittenChanges() {
    if (m_writing.hasUnflushedWrites())
        m_writing.flush();
    assert(!m_writing.hasUnflushedWrites());
}

void ParentIndependence::copyGrain(__int64 grainIndex) {
    __int64 const startBytes = grainIndex * m_layout.getGrainSizeBytes();
    int const grainBytes = m_layout.getGrainBytesAt(startBytes);
    m_writing.reserveRoom(startBytes, grainBytes);
    if (tryCopyPrepared(grainIndex))
        return;
    m_grains.forEachPart(startBytes, grainBytes, [this](__int64 partBytes, int size) {
        if (!m_reading.isWrittenHere(partBytes, size))
            copyPlain(partBytes, size);
    });
}

bool ParentIndependence::tryCopyPrepared(__int64 grainIndex) {
    // `CVMDKDisk::makeGrainIndependentOfParent` would take a record from an encrypted parent
    // without its padding.
    if (!m_preparedReading.tryRead(grainIndex, m_grain))
        return false;
    storePrepared(grainIndex, m_grain);
    return true;
}

void ParentIndependence::storePrepared(__int64 grainIndex, yx::TBuffer<unsigned char>& prepared) {
    m_preparer->patchGrainIndexInPreparedGrainData(prepared, grainIndex);
    m_writing.writePrepared(grainIndex, prepared, DiskWriting::Content::Stays);
}

void ParentIndependence::copyPlain(__int64 positionBytes, int bytes) {
    assert(bytes >= 1);
    m_grain.setUsed(bytes);
    m_reading.read(positionBytes, m_grain.getData(), bytes);
    if (!yx::isAllZero(m_grain.getData(), static_cast<std::size_t>(bytes)))
        m_writing.write(positionBytes, m_grain.getData(), bytes, DiskWriting::Content::Stays);
    else if (m_grains.at(positionBytes).isGrainOfDisk)
        m_zeroWriting.storeGrain(positionBytes / m_layout.getGrainSizeBytes(),
                                 DiskWriting::Content::Stays);
}

} // namespace kelm::host

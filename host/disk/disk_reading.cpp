#include "host/disk/disk_reading.h"

#include <cassert>

namespace kelm::host {

namespace {

void readDiskAt(CVMDKDisk& disk, __int64 positionBytes, void* buffer, int bytes) {
    disk.seek(positionBytes);
    disk.read(buffer, bytes);
}

} // namespace

/// Notes that an operation has failed; whether changes in memory may be the reason.
bool DiskReading::becomesStuck() {
    if (m_unflushed)
        m_unflushed->noteFailure();
    return isStuck();
}

CVMDKDisk& DiskReading::chooseDisk(__int64 grainIndex) {
    assert(isStuck() && m_storedView);
    return m_unflushed->contains(grainIndex) ? m_disk : m_storedView->getDisk();
}

void DiskReading::read(__int64 positionBytes, void* buffer, int bytes) {
    __int64 const grainSizeBytes = m_layout.getGrainSizeBytes();
    bool const isInDisk = positionBytes >= 0 && positionBytes <= m_layout.getSizeBytes() - bytes;
    if (!isInDisk) {
        // Refused in the words of the library.
        readDiskAt(m_disk, positionBytes, buffer, bytes);
        return;
    }
    if (!isStuck()) {
        try {
            m_tableLimit.keep();
            readDiskAt(m_disk, positionBytes, buffer, bytes);
            return;
        } catch (yx::CError const&) {
            if (!becomesStuck())
                throw;
        }
    }
    assert(!m_unflushed->isEmpty());
    auto* target = static_cast<unsigned char*>(buffer);
    m_layout.forEachGrainPart(positionBytes, bytes, [&](__int64 partBytes, int size) {
        readDiskAt(chooseDisk(partBytes / grainSizeBytes), partBytes, target, size);
        target += size;
    });
}

bool DiskReading::isGrainWritten(__int64 grainIndex) {
    if (!m_layout.areExtentsWholeGrains())
        return true;
    return useDisk(grainIndex, [&](CVMDKDisk& disk) {
        disk.seek(grainIndex * m_layout.getGrainSizeBytes());
        return disk.isGrainWritten();
    });
}

bool DiskReading::isGrainWrittenHere(__int64 grainIndex) {
    return useDisk(grainIndex, [&](CVMDKDisk& disk) {
        disk.seek(grainIndex * m_layout.getGrainSizeBytes());
        return disk.isGrainWrittenAndIndependentOfParent();
    });
}

} // namespace kelm::host

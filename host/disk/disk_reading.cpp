#include "host/disk/disk_reading.h"

#include <cassert>

namespace kelm::host {

namespace {

void readAt(CVMDKDisk& disk, __int64 positionBytes, void* buffer, int bytes) {
    disk.seek(positionBytes);
    disk.read(buffer, bytes);
}

} // namespace

CVMDKDisk& DiskReading::chooseDisk(__int64 grainIndex) {
    assert(m_unflushed.areStuck());
    return m_unflushed.contains(grainIndex) ? m_disk : m_storedView.getDisk();
}

void DiskReading::read(__int64 positionBytes, void* buffer, int bytes) {
    __int64 const grainSizeBytes = m_layout.getGrainSizeBytes();
    bool const isInDisk = positionBytes >= 0 && positionBytes <= m_layout.getSizeBytes() - bytes;
    if (!isInDisk) {
        // Refused in the words of the library.
        readAt(m_disk, positionBytes, buffer, bytes);
        return;
    }
    if (!m_unflushed.areStuck()) {
        try {
            m_tableLimit.keep();
            readAt(m_disk, positionBytes, buffer, bytes);
            return;
        } catch (yx::CError const&) {
            m_unflushed.noteFailure();
            if (!m_unflushed.areStuck())
                throw;
        }
    }
    assert(!m_unflushed.isEmpty());
    auto* target = static_cast<unsigned char*>(buffer);
    m_layout.forEachGrainPart(positionBytes, bytes, [&](__int64 partBytes, int size) {
        readAt(chooseDisk(partBytes / grainSizeBytes), partBytes, target, size);
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

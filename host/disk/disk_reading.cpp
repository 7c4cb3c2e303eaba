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
            if (!m_grains.tryReadByMap(m_disk, positionBytes, buffer, bytes))
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

bool DiskReading::isWritten(__int64 positionBytes, __int64 bytes) {
    bool isWritten = false;
    m_layout.forEachGrainPart(positionBytes, bytes, [&](__int64 partBytes, int size) {
        isWritten =
            isWritten || useDisk(partBytes / m_layout.getGrainSizeBytes(), [&](CVMDKDisk& disk) {
                return m_grains.isWritten(disk, partBytes, size);
            });
    });
    return isWritten;
}

__int64 DiskReading::countUnwrittenBytes(__int64 positionBytes, __int64 maxBytes) {
    return useDisk(positionBytes / m_layout.getGrainSizeBytes(), [&](CVMDKDisk& disk) {
        // Each grain has a disk of its own to ask then.
        return isStuck() ? 0 : m_grains.countUnwrittenBytes(disk, positionBytes, maxBytes);
    });
}

__int64 DiskReading::countBytesNotHere(__int64 positionBytes, __int64 maxBytes) {
    return useDisk(positionBytes / m_layout.getGrainSizeBytes(), [&](CVMDKDisk& disk) {
        // Each grain has a disk of its own to ask then.
        return isStuck() ? 0 : m_grains.countBytesNotHere(disk, positionBytes, maxBytes);
    });
}

bool DiskReading::isWrittenHere(__int64 positionBytes, __int64 bytes) {
    bool isWrittenHere = true;
    m_layout.forEachGrainPart(positionBytes, bytes, [&](__int64 partBytes, int size) {
        isWrittenHere = isWrittenHere &&
                        useDisk(partBytes / m_layout.getGrainSizeBytes(), [&](CVMDKDisk& disk) {
                            return m_grains.isWrittenHere(disk, partBytes, size);
                        });
    });
    return isWrittenHere;
}

bool DiskReading::isPassedOn(__int64 positionBytes, __int64 bytes) {
    bool isPassedOn = true;
    m_layout.forEachGrainPart(positionBytes, bytes, [&](__int64 partBytes, int size) {
        isPassedOn =
            isPassedOn && useDisk(partBytes / m_layout.getGrainSizeBytes(), [&](CVMDKDisk& disk) {
                return m_grains.isPassedOn(disk, partBytes, size);
            });
    });
    return isPassedOn;
}

bool DiskReading::isGrainWritten(__int64 grainIndex) {
    __int64 const startBytes = grainIndex * m_layout.getGrainSizeBytes();
    // Refuses a grain outside of the disk.
    m_grains.at(startBytes);
    return isWritten(startBytes, m_layout.getGrainBytesAt(startBytes));
}

bool DiskReading::isGrainWrittenHere(__int64 grainIndex) {
    __int64 const startBytes = grainIndex * m_layout.getGrainSizeBytes();
    m_grains.at(startBytes);
    return isWrittenHere(startBytes, m_layout.getGrainBytesAt(startBytes));
}

} // namespace kelm::host

#include "host/disk/disk_reading.h"

namespace kelm::host {

void DiskReading::read(__int64 positionBytes, void* buffer, int bytes) {
    m_tableLimit.keep();
    m_disk.seek(positionBytes);
    m_disk.read(buffer, bytes);
}

bool DiskReading::isGrainWritten(__int64 grainIndex) {
    if (!m_layout.areExtentsWholeGrains())
        return true;
    m_tableLimit.keep();
    m_disk.seek(grainIndex * m_layout.getGrainSizeBytes());
    return m_disk.isGrainWritten();
}

bool DiskReading::isGrainWrittenHere(__int64 grainIndex) {
    m_tableLimit.keep();
    m_disk.seek(grainIndex * m_layout.getGrainSizeBytes());
    return m_disk.isGrainWrittenAndIndependentOfParent();
}

} // namespace kelm::host

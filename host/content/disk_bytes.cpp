#include "host/content/disk_bytes.h"

#include <cassert>

namespace kelm::host {

DiskBytes::DiskBytes(SafeDisk& disk, __int64 sizeBytes) : m_disk(disk), m_sizeBytes(sizeBytes) {
    assert(sizeBytes >= 0 && sizeBytes <= disk.getSizeBytes());
}

void DiskBytes::read(__int64 positionBytes, unsigned char* data, int bytes) {
    assert(positionBytes >= 0 && bytes >= 0 && positionBytes <= m_sizeBytes - bytes);
    m_disk.read(positionBytes, data, bytes);
}

} // namespace kelm::host

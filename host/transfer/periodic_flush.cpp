#include "host/transfer/periodic_flush.h"

#include <cassert>

namespace kelm::host {

PeriodicFlush::PeriodicFlush(SafeDisk& disk, __int64 intervalBytes)
    : m_disk(disk), m_intervalBytes(intervalBytes) {
    assert(intervalBytes > 0);
}

void PeriodicFlush::addGrain() {
    m_unflushedBytes += m_disk.getGrainSizeBytes();
    if (m_unflushedBytes < m_intervalBytes)
        return;
    m_disk.flush();
    m_unflushedBytes = 0;
}

} // namespace kelm::host

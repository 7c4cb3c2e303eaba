#pragma once

#include "host/disk/safe_disk.h"

namespace kelm::host {

/// Flushes a disk that is being filled, now and then: until its tables are on the device, a grain
/// is dead space for the next one who opens the disk, and who goes on after a kill or a power cut
/// copies it again.
class PeriodicFlush {
public:
    /// `disk` must outlive the object. `intervalBytes` is at least 1.
    PeriodicFlush(SafeDisk& disk, __int64 intervalBytes);

    /// Tells of a grain that was stored, and flushes the disk if it was one too many. What the
    /// flush throws is thrown.
    void addGrain();

private:
    SafeDisk& m_disk;
    __int64 m_intervalBytes;
    __int64 m_unflushedBytes = 0;
};

} // namespace kelm::host

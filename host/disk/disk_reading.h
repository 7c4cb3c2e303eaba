#pragma once

#include "host/disk/disk_layout.h"
#include "host/disk/table_limit.h"
#include "kelm/disk/disk.h"

namespace kelm::host {

/// Reads a disk by positions, and says what it holds. For grains in prepared form, see
/// `PreparedReading`.
class DiskReading {
public:
    /// All of them must outlive the object.
    DiskReading(CVMDKDisk& disk, DiskLayout const& layout, TableLimit& tableLimit)
        : m_disk(disk), m_layout(layout), m_tableLimit(tableLimit) {}

    /// Reads exactly `bytes` bytes at `positionBytes`.
    void read(__int64 positionBytes, void* buffer, int bytes);

    /// Whether the chain holds the grain; false means that it reads as zeros. Always true where
    /// extents are no whole numbers of grains: several grains of a file may then lie under one.
    bool isGrainWritten(__int64 grainIndex);

    /// Whether this very disk holds the grain.
    bool isGrainWrittenHere(__int64 grainIndex);

private:
    CVMDKDisk& m_disk;
    DiskLayout const& m_layout;
    TableLimit& m_tableLimit;
};

} // namespace kelm::host

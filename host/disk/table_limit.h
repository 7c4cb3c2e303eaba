#pragma once

#include <functional>

#include "kelm/disk/disk.h"

namespace kelm::host {

/// The grain tables that a disk keeps in memory, with those of its parents: up to 48 MiB, for 512 GiB
/// of disk with grains of 64 KiB.
constexpr int kMaxTablesInMemory = 16384;

/// Bounds the grain tables of a disk whose cache has no limit of its own.
///
/// A disk that is written to has such a cache: with a limit, the cache may replace a changed table
/// by a stale copy. Here all tables are flushed and dropped at once.
class TableLimit {
public:
    /// `disk` must outlive the object. `flush` brings all changes of the disk to its files.
    TableLimit(CVMDKDisk& disk, std::function<void()> flush);

    /// Comes before every operation that may bring further tables into memory.
    void keep();

private:
    CVMDKDisk& m_disk;
    std::function<void()> m_flush;
};

} // namespace kelm::host

#pragma once

#include <functional>

#include "kelm/disk/disk.h"

namespace kelm::host {

/// The grain tables that a disk keeps in memory, with those of its parents: up to 48 MiB, for 512
/// GiB of disk with grains of 64 KiB.
constexpr int kMaxTablesInMemory = 16384;

/// As many are enough for work that goes through a disk from its start to its end, and needs no table
/// again that it has passed: up to 7 MiB, for 64 GiB of disk with grains of 64 KiB.
constexpr int kMaxTablesOfOnePass = 2048;

/// Bounds the grain tables of a disk whose cache has no limit of its own.
///
/// A disk that is written to has such a cache: with a limit, the cache may replace a changed table
/// by a stale copy. Here all tables are flushed and dropped at once.
class TableLimit {
public:
    /// `disk` must outlive the object. `flush` brings all changes of the disk to its files.
    TableLimit(CVMDKDisk& disk, std::function<void()> flush);

    /// Keeps at most so many tables from now on, 1 or more, and never more than
    /// `kMaxTablesInMemory`. One operation may go beyond that, since tables are loaded in runs.
    void set(int maxTables);

    /// Comes before every operation that may bring further tables into memory.
    void keep();

private:
    CVMDKDisk& m_disk;
    std::function<void()> m_flush;

    /// As many bring about the flush.
    int m_tooManyTables = kMaxTablesInMemory;
};

} // namespace kelm::host

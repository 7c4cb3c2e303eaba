#pragma once

#include <exception>

#include "host/system/worker_pipeline.h"
#include "host/transfer/grain_item.h"
#include "host/transfer/unpreparer.h"

namespace kelm::host {

/// The plain grains of a disk for one who reads them in order, deciphered and decoded ahead on
/// several threads. For whoever takes grains at a pace of his own; a transfer that moves all of
/// them uses a `GrainPipeline`.
class GrainsAhead {
public:
    /// Starts the workers; see `OrderedWorkers` for what that may throw. `disk` must outlive the
    /// object, which shares its thread, and not change before what is read.
    GrainsAhead(SafeDisk& disk, int threadCount);

    /// The bytes of the disk that a grain holds, good until the next call; null for a grain that
    /// neither the disk nor a parent holds. Indexes must not fall. A `yx::CIOError` of a grain that
    /// cannot be read or decoded has its place, as `addGrainPlace` says, and comes only once that
    /// grain, or one behind it, is asked for.
    yx::TBuffer<unsigned char> const* find(__int64 grainIndex);

private:
    using Pipeline = WorkerPipeline<GrainItem>;

    void fillUpTo(__int64 endGrainIndex);
    bool submitNext(__int64 endGrainIndex);
    GrainItem& takeOldest();

    SafeDisk& m_disk;
    Unpreparer m_unpreparer;
    __int64 m_nextGrainIndex = 0;

    /// The grain under way that comes next, once it has been taken; null for none.
    GrainItem* m_taken = nullptr;

    /// What reading the grain before `m_nextGrainIndex` threw; nothing is read behind it.
    std::exception_ptr m_failure;

    /// Ends before what its workers use.
    Pipeline m_pipeline;
};

} // namespace kelm::host

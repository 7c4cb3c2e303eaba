#pragma once

#include <functional>

#include "host/system/worker_pipeline.h"
#include "host/transfer/grain_item.h"
#include "yx/error.h"

namespace kelm::host {

/// Moves the grains of a disk from one place to another in their order, with the coding of them on
/// several threads. For transfers that compress or decompress. Others have nothing to gain from it,
/// since a disk serves one thread.
class GrainPipeline {
public:
    /// Sets `result` of an item. Called on the worker threads; `worker` counts these from 0.
    /// Touches no disk.
    using Work = std::function<void(GrainItem& item, int worker)>;

    /// Reads the next grain into an item, or returns false if there is none.
    using Fill = std::function<bool(GrainItem& item)>;

    /// Uses the result of an item.
    using Drain = std::function<void(GrainItem& item)>;

    /// Adds to the error of a grain that cannot be decoded what only the thread of the disks can
    /// find out.
    using Explain = std::function<void(yx::CIOError& error, __int64 grainIndex)>;

    /// Starts the workers. See `OrderedWorkers` for what that may throw.
    GrainPipeline(int threadCount, __int64 grainSizeBytes, Work work);

    /// How many items a pipeline has for grains of this size: no more than fit into 64 MiB, but at
    /// least one.
    static int calcItemCount(__int64 grainSizeBytes, int threadCount);

    /// Passes all grains through: `fill` until it returns false, and `drain` for each item in the
    /// order of filling. Both are called on this thread, which may thus hold the disks. The indexes
    /// that `fill` sets must rise. What `fill`, the work and `drain` throw is thrown, and the
    /// pipeline is then good for nothing but its end. If the work throws `CIOError` `CorruptData`,
    /// `explain` is called first; it may be empty.
    void run(Fill const& fill, Drain const& drain, Explain const& explain = {});

private:
    GrainItem& takeOldest(Explain const& explain);

    WorkerPipeline<GrainItem> m_pipeline;
};

} // namespace kelm::host

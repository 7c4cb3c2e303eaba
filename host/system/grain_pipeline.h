#pragma once

#include <condition_variable>
#include <exception>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

#include "kelm/graindata/data_preparer.h"

namespace kelm::host {

/// Works on grains on several threads and gives them back in order.
///
/// One thread, the owner, fills items and takes them back; it is also the one that holds the disks,
/// which serve one thread. The workers turn one buffer of an item into another and touch no disk. The
/// items, and with them all memory, are there from the start and go round:
///
///     owner: getFree, fill, submit  ->  workers  ->  owner: takeOldest, use, recycle
class GrainPipeline {
public:
    /// One grain on its way.
    struct Item {
        /// The grain's index in the disk. The pipeline does not look at it.
        __int64 grainIndex = 0;

        /// What the owner fills, and whether that is a grain in prepared form.
        yx::P<yx::TBuffer<unsigned char>> input;
        bool inputIsPrepared = false;

        /// Room for the work, and where it may leave its result.
        yx::P<yx::TBuffer<unsigned char>> aux1;
        yx::P<yx::TBuffer<unsigned char>> aux2;

        /// What the work gives: one of the three above, or null for a grain of zeros.
        yx::P<yx::TBuffer<unsigned char>> result;

    private:
        friend class GrainPipeline;
        bool done = false;
        std::exception_ptr error;
    };

    /// Sets `result` of the item. Called on the worker threads; `worker` counts them from 0.
    using Work = std::function<void(Item& item, int worker)>;

    /// Starts `threadCount` workers, at least one, on `itemCount` items, at least one. Where the
    /// system grants fewer threads, those do; none is `yx::CError`. Signals do not reach workers.
    GrainPipeline(int threadCount, int itemCount, Work work);
    GrainPipeline(GrainPipeline const&) = delete;
    GrainPipeline& operator=(GrainPipeline const&) = delete;

    /// Waits for the workers to end what they are at; what was not taken is dropped.
    ~GrainPipeline();

    /// How many items, of grains of this size in several buffers, fit the memory that a pipeline may
    /// take: 64 MiB. At least one.
    static int calcItemCount(__int64 grainSizeBytes, int threadCount);

    /// The next free item, null if all are on their way.
    Item* getFree();

    /// Hands the item of the last `getFree` to the workers.
    void submit();

    /// Whether an item is on its way.
    bool isBusy() const { return m_submitted != m_taken; }

    /// Waits for the oldest item on its way and returns it; what its work threw is thrown. There
    /// must be one. Where it has to wait, it waits for several, so that it need not wait for the
    /// next. The item is the owner's until `recycle`, which is due after a throw too if the pipeline
    /// is to go on.
    Item& takeOldest();

    /// Frees the item of the last `takeOldest`.
    void recycle();

private:
    void runWorker(int worker);
    bool isBatchDone();
    Item& itemAt(std::size_t number) { return m_items[number % m_items.size()]; }

    Work m_work;
    std::vector<Item> m_items;

    // Items are counted as they pass: taken <= started <= submitted <= taken + size.
    std::size_t m_submitted = 0;
    std::size_t m_started = 0;
    std::size_t m_taken = 0;
    bool m_stopping = false;

    // What the owner waits for, while it does: the items before this one.
    std::size_t m_batchEnd = 0;
    bool m_ownerWaits = false;
    std::mutex m_mutex;
    std::condition_variable m_haveWork;
    std::condition_variable m_haveResult;
    std::vector<std::thread> m_threads;
};

} // namespace kelm::host

#pragma once

#include <algorithm>
#include <cassert>
#include <functional>
#include <utility>
#include <vector>

#include "host/system/ordered_workers.h"

namespace kelm::host {

/// Works on items on several threads and returns them in the order in which they were submitted.
/// All items are made at the start and used again and again, so memory is bounded. Not for work
/// that takes only a few microseconds: that is faster on the thread that has it.
///
/// One thread, the owner, fills the items and takes them back. Only the workers touch an item
/// between `submit` and `takeOldest`:
///
///     owner: getFree, fill, submit  ->  workers  ->  owner: takeOldest, use, recycle
///
/// `Item` is any type with a default constructor.
template <class Item>
class WorkerPipeline {
public:
    /// The work on one item. Called on the worker threads; `worker` counts these from 0.
    using Work = std::function<void(Item& item, int worker)>;

    /// As for `OrderedWorkers`, with an item for each slot.
    WorkerPipeline(int threadCount, int itemCount, Work work)
        : m_items(static_cast<std::size_t>(std::max(itemCount, 1))),
          m_workers(threadCount, itemCount,
                    [this, doWork = std::move(work)](std::size_t slot, int worker) {
                        doWork(m_items[slot], worker);
                    }) {
        assert(m_items.size() == m_workers.getSlotCount());
    }

    /// How many items this pipeline has.
    std::size_t getItemCount() const { return m_items.size(); }

    /// The item that the next `submit` hands over; null if none is free.
    Item* getFree() { return m_workers.hasFree() ? &m_items[m_workers.getNextSlot()] : nullptr; }

    /// Hands the item of `getFree` to the workers. With none free it is `yx::CError` "No slot is
    /// free.".
    void submit() { m_workers.submit(); }

    /// Whether an item is on its way, or taken and not recycled yet.
    bool isBusy() const { return m_workers.isBusy(); }

    /// Waits for the item that was submitted first and returns it. It belongs to the owner until
    /// `recycle`. What its work threw is thrown here; the item is then taken all the same, and
    /// `recycle` must follow if the pipeline is to go on. With nothing submitted it is `yx::CError`
    /// "No work is on its way.".
    Item& takeOldest() { return m_items[m_workers.takeOldest()]; }

    /// The item of the last `takeOldest`, also of one that threw, until `recycle`. With none taken
    /// it is `yx::CError` "No slot is taken.".
    Item& getTaken() { return m_items[m_workers.getTakenSlot()]; }

    /// Makes the item of the last `takeOldest` free. With none taken it is `yx::CError` "No slot is
    /// taken.".
    void recycle() { m_workers.recycle(); }

private:
    // The threads end before the items do.
    std::vector<Item> m_items;
    OrderedWorkers m_workers;
};

} // namespace kelm::host

#pragma once

#include <condition_variable>
#include <cstddef>
#include <exception>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

#include "yx/base.h"

namespace kelm::host {

/// The threads of a `WorkerPipeline`, and the order of what passes through them. It knows the items
/// by their slots only: numbers from 0 up to the slot count, which come round in turn.
///
/// Use `WorkerPipeline`, which keeps an item for each slot, unless the items live elsewhere.
///
/// One thread, the owner, calls all functions. Each slot passes three states, in this order:
///
///     free  --submit-->  on its way  --takeOldest-->  taken  --recycle-->  free
///
/// A call out of turn is `yx::CError` and changes nothing.
class OrderedWorkers {
public:
    /// The work on one slot. Called on the worker threads; `worker` counts these from 0.
    using Work = std::function<void(std::size_t slot, int worker)>;

    /// Starts `threadCount` threads, or as many of them as the system allows, and provides
    /// `slotCount` slots; at least one of each. `yx::CError` "Cannot start a thread." if the system
    /// allows none.
    OrderedWorkers(int threadCount, int slotCount, Work work);
    OrderedWorkers(OrderedWorkers const&) = delete;
    OrderedWorkers& operator=(OrderedWorkers const&) = delete;

    /// Waits until the workers have finished the slots that they have begun. Work on the others is
    /// not begun any more.
    ~OrderedWorkers();

    /// How many slots keep this many threads busy, if each takes `slotBytes` bytes of memory: no
    /// more than fit into 64 MiB, but at least one.
    static int calcSlotCount(__int64 slotBytes, int threadCount);

    /// The slots that the constructor was asked for.
    std::size_t getSlotCount() const { return m_slots.size(); }

    /// Whether a slot is free.
    bool hasFree() const { return m_submitted - m_recycled < m_slots.size(); }

    /// The slot that the next `submit` hands over. It is free if `hasFree`.
    std::size_t getNextSlot() const { return slotOf(m_submitted); }

    /// Hands the slot `getNextSlot` to the workers. With no slot free it is `yx::CError` "No slot
    /// is free.".
    void submit();

    /// Whether a slot is on its way or taken.
    bool isBusy() const { return m_submitted != m_recycled; }

    /// Waits for the slot that was submitted first, takes it, and returns it. What its work threw
    /// is thrown here, and the slot is taken all the same. Called again before `recycle`, it
    /// returns or throws the same. If it has to wait, it waits for several slots at once, so that
    /// threads change less often. With nothing submitted it is `yx::CError` "No work is on its
    /// way.".
    std::size_t takeOldest();

    /// The slot that is taken. With none taken it is `yx::CError` "No slot is taken.".
    std::size_t getTakenSlot() const;

    /// Frees the slot that is taken. With none taken it is `yx::CError` "No slot is taken.".
    void recycle();

private:
    struct Slot {
        bool isDone = false;
        std::exception_ptr error;
    };

    void runWorker(int worker);
    void waitForBatch(std::unique_lock<std::mutex>& lock);
    bool isBatchDone() const;
    void verifyIsTaken() const;
    void assertCounts() const;
    std::size_t slotOf(std::size_t number) const { return number % m_slots.size(); }

    Work m_work;
    std::vector<Slot> m_slots;

    // How many slots have got so far: recycled <= started <= submitted <= recycled + slot count.
    // Only the owner changes the first and the third.
    std::size_t m_submitted = 0;
    std::size_t m_started = 0;
    std::size_t m_recycled = 0;
    bool m_isOldestTaken = false;
    bool m_stopping = false;

    // While the owner waits: for the work before this number.
    std::size_t m_batchEnd = 0;
    bool m_ownerWaits = false;
    std::mutex m_mutex;
    std::condition_variable m_haveWork;
    std::condition_variable m_haveResult;
    std::vector<std::thread> m_threads;
};

} // namespace kelm::host

#include "host/system/ordered_workers.h"

#include <algorithm>
#include <cassert>
#include <exception>

#include "host/system/signal_block.h"
#include "yx/error.h"

namespace kelm::host {

namespace {

constexpr __int64 kMaxMemoryBytes = 64 << 20;

/// Enough on their way that no worker runs dry while the owner writes a batch.
constexpr int kSlotsPerThread = 16;

/// A sleeping worker is woken for so many slots, or as soon as the owner waits.
constexpr std::size_t kSlotsToWakeFor = 4;

/// If the owner has to wait, it waits for this fraction of all slots.
constexpr std::size_t kBatchesOfSlots = 3;

[[noreturn]] void refuseCall(char const* message) {
    throw yx::CError(message, "", -1, yx::CProps(), nullptr);
}

} // namespace

int OrderedWorkers::calcSlotCount(__int64 slotBytes, int threadCount) {
    assert(slotBytes > 0);
    __int64 const fitting = std::max<__int64>(kMaxMemoryBytes / slotBytes, 1);
    return static_cast<int>(std::min<__int64>(fitting, (threadCount + 1LL) * kSlotsPerThread));
}

OrderedWorkers::OrderedWorkers(int threadCount, int slotCount, Work work)
    : m_work(std::move(work)), m_slots(static_cast<std::size_t>(std::max(slotCount, 1))) {
    SignalBlock const block;
    m_threads.reserve(static_cast<std::size_t>(std::max(threadCount, 1)));
    for (int worker = 0; worker < std::max(threadCount, 1); ++worker) {
        try {
            m_threads.emplace_back([this, worker] { runWorker(worker); });
        } catch (std::exception const& error) {
            // Fewer threads do the same work.
            if (m_threads.empty()) {
                throw yx::CError("Cannot start a thread.", yx::String(error.what()), -1,
                                 yx::CProps(), nullptr);
            }
            break;
        }
    }
}

OrderedWorkers::~OrderedWorkers() {
    {
        std::lock_guard const lock(m_mutex);
        m_stopping = true;
    }
    m_haveWork.notify_all();
    for (std::thread& thread : m_threads)
        thread.join();
}

void OrderedWorkers::assertCounts() const {
    assert(m_recycled <= m_started);
    assert(m_started <= m_submitted);
    assert(m_submitted - m_recycled <= m_slots.size());
}

void OrderedWorkers::runWorker(int worker) {
    std::unique_lock lock(m_mutex);
    while (true) {
        m_haveWork.wait(lock, [this] { return m_stopping || m_started != m_submitted; });
        if (m_stopping)
            return;
        std::size_t const index = slotOf(m_started++);
        Slot& slot = m_slots[index];
        assertCounts();
        assert(!slot.isDone && !slot.error);
        lock.unlock();
        try {
            m_work(index, worker);
        } catch (...) {
            slot.error = std::current_exception();
        }
        lock.lock();
        slot.isDone = true;
        if (m_ownerWaits && isBatchDone())
            m_haveResult.notify_one();
    }
}

void OrderedWorkers::submit() {
    if (!hasFree())
        refuseCall("No slot is free.");
    bool isWorthWaking = false;
    {
        std::lock_guard const lock(m_mutex);
        assert(!m_slots[slotOf(m_submitted)].isDone);
        ++m_submitted;
        assertCounts();
        isWorthWaking = m_submitted - m_started >= kSlotsToWakeFor;
    }
    if (isWorthWaking)
        m_haveWork.notify_one();
}

bool OrderedWorkers::isBatchDone() const {
    // If the last of the batch is done, nearly always all before it are.
    return m_slots[slotOf(m_batchEnd - 1)].isDone && m_slots[slotOf(m_recycled)].isDone;
}

void OrderedWorkers::waitForBatch(std::unique_lock<std::mutex>& lock) {
    // To sleep for each slot would cost a change of threads for each of them.
    m_batchEnd =
        m_recycled + std::min(m_submitted - m_recycled, m_slots.size() / kBatchesOfSlots + 1);
    assert(m_batchEnd > m_recycled && m_batchEnd <= m_submitted);
    m_ownerWaits = true;
    if (m_started != m_submitted)
        m_haveWork.notify_all();
    m_haveResult.wait(lock, [this] { return isBatchDone(); });
    m_ownerWaits = false;
}

std::size_t OrderedWorkers::takeOldest() {
    if (!isBusy())
        refuseCall("No work is on its way.");
    std::size_t const index = slotOf(m_recycled);
    Slot const& slot = m_slots[index];
    std::unique_lock lock(m_mutex);
    if (!slot.isDone)
        waitForBatch(lock);
    assert(slot.isDone && m_started > m_recycled);
    m_isOldestTaken = true;
    if (slot.error)
        std::rethrow_exception(slot.error);
    return index;
}

void OrderedWorkers::verifyIsTaken() const {
    if (!m_isOldestTaken)
        refuseCall("No slot is taken.");
}

std::size_t OrderedWorkers::getTakenSlot() const {
    verifyIsTaken();
    return slotOf(m_recycled);
}

void OrderedWorkers::recycle() {
    verifyIsTaken();
    std::lock_guard const lock(m_mutex);
    assert(m_slots[slotOf(m_recycled)].isDone);
    m_slots[slotOf(m_recycled)] = Slot();
    m_isOldestTaken = false;
    ++m_recycled;
    assertCounts();
}

} // namespace kelm::host

#include "host/system/grain_pipeline.h"

#include <algorithm>
#include <csignal>
#include <system_error>

#include <pthread.h>

#include "yx/error.h"

namespace kelm::host {

namespace {

constexpr __int64 kMaxMemoryBytes = 64 << 20;
constexpr int kBuffersPerItem = 3;

/// Enough on its way that no worker waits while the owner writes a batch.
constexpr int kItemsPerThread = 16;

/// A worker that sleeps is woken for so many, or once the owner waits.
constexpr std::size_t kItemsToWakeFor = 4;

/// The owner, once it has to wait, waits until one in so many parts of all items can be taken.
constexpr std::size_t kBatchesOfItems = 3;

/// Keeps signals from threads that are started meanwhile, so that they interrupt the owner, who may
/// be waiting for a pipe.
class SignalBlock {
public:
    SignalBlock() {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_BLOCK, &all, &m_before);
    }
    SignalBlock(SignalBlock const&) = delete;
    SignalBlock& operator=(SignalBlock const&) = delete;
    ~SignalBlock() { pthread_sigmask(SIG_SETMASK, &m_before, nullptr); }

private:
    sigset_t m_before{};
};

yx::P<yx::TBuffer<unsigned char>> makeBuffer() {
    return yx::makeObject<yx::TBuffer<unsigned char>>();
}

} // namespace

int GrainPipeline::calcItemCount(__int64 grainSizeBytes, int threadCount) {
    // A prepared grain can be a little larger than a plain one.
    __int64 const itemBytes = kBuffersPerItem * (grainSizeBytes + grainSizeBytes / 16 + 4096);
    __int64 const fitting = std::max<__int64>(kMaxMemoryBytes / itemBytes, 1);
    return static_cast<int>(std::min<__int64>(fitting, (threadCount + 1LL) * kItemsPerThread));
}

GrainPipeline::GrainPipeline(int threadCount, int itemCount, Work work)
    : m_work(std::move(work)), m_items(static_cast<std::size_t>(std::max(itemCount, 1))) {
    for (Item& item : m_items) {
        item.input = makeBuffer();
        item.aux1 = makeBuffer();
        item.aux2 = makeBuffer();
    }
    SignalBlock const block;
    m_threads.reserve(static_cast<std::size_t>(std::max(threadCount, 1)));
    for (int worker = 0; worker < std::max(threadCount, 1); ++worker) {
        try {
            m_threads.emplace_back([this, worker] { runWorker(worker); });
        } catch (std::system_error const& error) {
            // The work gets done by fewer, too.
            if (m_threads.empty()) {
                throw yx::CError("Cannot start a thread.", yx::String(error.what()), -1,
                                 yx::CProps(), nullptr);
            }
            break;
        }
    }
}

GrainPipeline::~GrainPipeline() {
    {
        std::lock_guard const lock(m_mutex);
        m_stopping = true;
    }
    m_haveWork.notify_all();
    for (std::thread& thread : m_threads)
        thread.join();
}

void GrainPipeline::runWorker(int worker) {
    std::unique_lock lock(m_mutex);
    while (true) {
        m_haveWork.wait(lock, [this] { return m_stopping || m_started != m_submitted; });
        if (m_stopping)
            return;
        Item& item = itemAt(m_started++);
        lock.unlock();
        try {
            m_work(item, worker);
        } catch (...) {
            item.error = std::current_exception();
        }
        lock.lock();
        item.done = true;
        if (m_ownerWaits && isBatchDone())
            m_haveResult.notify_one();
    }
}

GrainPipeline::Item* GrainPipeline::getFree() {
    // Only the owner moves these two counts.
    return m_submitted - m_taken < m_items.size() ? &itemAt(m_submitted) : nullptr;
}

void GrainPipeline::submit() {
    bool isWorthWaking = false;
    {
        std::lock_guard const lock(m_mutex);
        ++m_submitted;
        isWorthWaking = m_submitted - m_started >= kItemsToWakeFor;
    }
    if (isWorthWaking)
        m_haveWork.notify_one();
}

bool GrainPipeline::isBatchDone() {
    // Nearly always all before the last of the batch are done when it is.
    return itemAt(m_batchEnd - 1).done && itemAt(m_taken).done;
}

GrainPipeline::Item& GrainPipeline::takeOldest() {
    Item& item = itemAt(m_taken);
    std::unique_lock lock(m_mutex);
    if (!item.done) {
        // Sleeping until one item is done would be a change of threads for each of them.
        m_batchEnd =
            m_taken + std::min(m_submitted - m_taken, m_items.size() / kBatchesOfItems + 1);
        m_ownerWaits = true;
        if (m_started != m_submitted)
            m_haveWork.notify_all();
        m_haveResult.wait(lock, [this] { return isBatchDone(); });
        m_ownerWaits = false;
    }
    if (item.error)
        std::rethrow_exception(item.error);
    return item;
}

void GrainPipeline::recycle() {
    std::lock_guard const lock(m_mutex);
    itemAt(m_taken).done = false;
    itemAt(m_taken).error = nullptr;
    itemAt(m_taken).result.reset();
    ++m_taken;
}

} // namespace kelm::host

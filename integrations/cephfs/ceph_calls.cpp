#include "integrations/cephfs/ceph_calls.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <deque>
#include <exception>
#include <mutex>
#include <set>
#include <thread>
#include <utility>

#include <unistd.h>

namespace kelm::ceph {

/// A call, and what has become of it.
struct CephCalls::Task {
    explicit Task(Call theCall) : call(std::move(theCall)) {}

    Call call;
    int result = 0;
    std::atomic<bool> hasReturned = false;

    /// That the call has returned, or that nobody is to wait for it.
    std::condition_variable isOver;
};

struct CephCalls::State {
    mutable std::mutex mutex;
    std::condition_variable hasWork;
    std::condition_variable hasFewerThreads;

    /// Those that no thread has taken yet.
    std::deque<std::shared_ptr<Task>> tasks;
    std::atomic<std::size_t> taskCount = 0;

    /// Those that somebody waits for.
    std::set<Task*> awaited;

    std::atomic<std::size_t> idleThreads = 0;
    std::size_t threads = 0;
    bool isAbandoned = false;
    bool isEnding = false;
};

namespace {

int makeGuarded(CephCalls::Call const& call) noexcept {
    try {
        return call();
    } catch (std::exception const&) {
        return -ENOMEM;
    }
}

/// Looks a short while whether it is so, and lets others run meanwhile: what the client has in its
/// cache comes sooner than a thread falls asleep and wakes up again.
template <class Condition>
void lookAWhile(Condition const& isSo) {
    constexpr std::chrono::microseconds kWhile(50);
    auto const end = std::chrono::steady_clock::now() + kWhile;
    while (!isSo() && std::chrono::steady_clock::now() < end)
        std::this_thread::yield();
}

/// Signals are for the threads of the program.
class AllSignalsBlocked {
public:
    AllSignalsBlocked() {
        sigset_t all;
        ::sigfillset(&all);
        ::pthread_sigmask(SIG_SETMASK, &all, &m_formerMask);
    }
    AllSignalsBlocked(AllSignalsBlocked const&) = delete;
    AllSignalsBlocked& operator=(AllSignalsBlocked const&) = delete;
    ~AllSignalsBlocked() { ::pthread_sigmask(SIG_SETMASK, &m_formerMask, nullptr); }

private:
    sigset_t m_formerMask{};
};

} // namespace

CephCalls::CephCalls() : m_state(std::make_shared<State>()), m_process(::getpid()) {}

CephCalls::~CephCalls() {
    // In a process that was forked off there are no threads, and the mutex may be locked for ever.
    if (m_process != ::getpid())
        return;
    std::unique_lock guard(m_state->mutex);
    m_state->isEnding = true;
    m_state->hasWork.notify_all();
    m_state->hasFewerThreads.wait(guard,
                                  [this] { return m_state->threads == 0 || m_state->isAbandoned; });
}

int CephCalls::make(Call call) noexcept {
    State& state = *m_state;
    try {
        auto const task = std::make_shared<Task>(std::move(call));
        std::unique_lock guard(state.mutex);
        if (state.isAbandoned)
            return -ECANCELED;
        if (state.idleThreads <= state.tasks.size())
            startThread(m_state);
        auto const awaited = state.awaited.insert(task.get()).first;
        try {
            state.tasks.push_back(task);
        } catch (...) {
            state.awaited.erase(awaited);
            throw;
        }
        state.taskCount = state.tasks.size();
        state.hasWork.notify_one();
        guard.unlock();
        lookAWhile([&] { return task->hasReturned.load(); });
        guard.lock();
        task->isOver.wait(guard, [&] { return task->hasReturned.load() || state.isAbandoned; });
        state.awaited.erase(awaited);
        return task->hasReturned.load() ? task->result : -ECANCELED;
    } catch (std::exception const&) {
        return -ENOMEM;
    }
}

void CephCalls::abandon() noexcept {
    std::lock_guard const guard(m_state->mutex);
    m_state->isAbandoned = true;
    for (Task* const task : m_state->awaited)
        task->isOver.notify_all();
    m_state->hasWork.notify_all();
    m_state->hasFewerThreads.notify_all();
}

bool CephCalls::isAbandoned() const noexcept {
    std::lock_guard const guard(m_state->mutex);
    return m_state->isAbandoned;
}

/// With the mutex locked.
void CephCalls::startThread(std::shared_ptr<State> const& state) {
    AllSignalsBlocked const blocked;
    std::thread([state] { work(*state); }).detach();
    ++state->threads;
    ++state->idleThreads;
}

void CephCalls::work(State& state) {
    std::unique_lock guard(state.mutex);
    while (true) {
        state.hasWork.wait(guard, [&state] {
            return !state.tasks.empty() || state.isEnding || state.isAbandoned;
        });
        if (state.isAbandoned || state.tasks.empty())
            break;
        std::shared_ptr<Task> const task = std::move(state.tasks.front());
        state.tasks.pop_front();
        state.taskCount = state.tasks.size();
        --state.idleThreads;
        guard.unlock();
        task->result = makeGuarded(task->call);
        // Before the caller can make its next call, for which no thread more is needed.
        ++state.idleThreads;
        task->hasReturned = true;
        guard.lock();
        task->isOver.notify_all();
        guard.unlock();
        lookAWhile([&state] { return state.taskCount > 0; });
        guard.lock();
    }
    --state.threads;
    --state.idleThreads;
    state.hasFewerThreads.notify_all();
}

} // namespace kelm::ceph

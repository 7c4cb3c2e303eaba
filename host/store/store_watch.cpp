#include "host/store/store_watch.h"

#include <csignal>

#include <pthread.h>

#include "host/store/store_calls.h"

namespace kelm::host {

namespace {

using std::chrono::duration_cast;
using std::chrono::seconds;

/// A thread that gets no signals: they are for those who do the work.
std::thread startQuietThread(std::function<void()> run) {
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    std::thread thread(std::move(run));
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return thread;
}

} // namespace

StoreWatch::StoreWatch(CancelFlag const& cancel, TellWaiting tell)
    : StoreWatch(cancel, std::move(tell), Patience()) {}

StoreWatch::StoreWatch(CancelFlag const& cancel, TellWaiting tell, Patience const& patience)
    : m_cancel(cancel), m_tell(std::move(tell)), m_patience(patience) {
    StoreCalls::get().setObserver([this] { begin(); });
}

StoreWatch::~StoreWatch() {
    StoreCalls::get().setObserver(nullptr);
    {
        std::lock_guard const guard(m_mutex);
        m_isEnding = true;
    }
    m_wake.notify_all();
    if (m_thread.joinable())
        m_thread.join();
}

void StoreWatch::setTimeout(seconds limit) {
    std::lock_guard const guard(m_mutex);
    m_patience.untilTimeout = limit;
}

/// Comes with every call.
void StoreWatch::begin() {
    if (!m_thread.joinable())
        m_thread = startQuietThread([this] { run(); });
}

void StoreWatch::run() {
    std::unique_lock lock(m_mutex);
    while (!m_wake.wait_for(lock, m_patience.step, [this] { return m_isEnding; }))
        look();
}

void StoreWatch::look() {
    StoreCalls& calls = StoreCalls::get();
    std::optional<StoreCalls::Clock::time_point> const oldest = calls.findOldest();
    if (!oldest) {
        m_toldTimes = 0;
        return;
    }
    auto const waited = StoreCalls::Clock::now() - *oldest;
    auto const times = waited / m_patience.untilWords;
    if (times > m_toldTimes)
        m_tell(duration_cast<seconds>(waited));
    m_toldTimes = times;
    if (m_cancel.isSet() && waited >= m_patience.untilCancel)
        calls.abandon(StoreCalls::End::Cancelled, duration_cast<seconds>(waited));
    else if (m_patience.untilTimeout && waited >= *m_patience.untilTimeout)
        calls.abandon(StoreCalls::End::TimedOut, *m_patience.untilTimeout);
}

} // namespace kelm::host

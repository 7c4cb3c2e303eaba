#include "host/store/store_calls.h"

#include <set>
#include <string>
#include <utility>
#include <vector>

#include "host/system/cancel.h"
#include "yx/error.h"

namespace kelm::host {

StoreCalls& StoreCalls::get() {
    // Never destroyed: streams may end at the very end of the process.
    static auto* const calls = new StoreCalls();
    return *calls;
}

StoreCalls::Call::Call(IStore& store) {
    StoreCalls& calls = StoreCalls::get();
    std::lock_guard const guard(calls.m_mutex);
    m_entry = calls.m_calls.insert(calls.m_calls.end(), Entry{&store, Clock::now()});
    if (calls.m_observer)
        calls.m_observer();
}

StoreCalls::Call::~Call() {
    StoreCalls& calls = StoreCalls::get();
    std::lock_guard const guard(calls.m_mutex);
    calls.m_calls.erase(m_entry);
}

std::optional<StoreCalls::Clock::time_point> StoreCalls::findOldest() {
    std::lock_guard const guard(m_mutex);
    return m_calls.empty() ? std::nullopt : std::optional(m_calls.front().begin);
}

void StoreCalls::abandon(End end, std::chrono::seconds waited) {
    std::lock_guard const guard(m_mutex);
    if (m_end == End::None) {
        m_end = end;
        m_waited = waited;
    }
    // Calls can't end meanwhile, nor can their stores.
    std::set<IStore*> stores;
    for (Entry const& call : m_calls)
        stores.insert(call.store);
    for (IStore* const store : stores)
        store->abandon();
}

void StoreCalls::verifyNotEnded(yx::CURI const& uri) {
    std::unique_lock guard(m_mutex);
    End const end = m_end;
    std::string const seconds = std::to_string(m_waited.count());
    guard.unlock();
    if (end == End::Cancelled)
        throw CancelledError();
    if (end == End::TimedOut) {
        throw yx::CIOError(
            yx::CIOError::IOFailure,
            yx::String::fromUTF8("The store did not answer within " + seconds + " seconds."),
            yx::CProps().add("uri", uri.toString(true)), nullptr);
    }
}

void StoreCalls::setObserver(std::function<void()> begin) {
    std::lock_guard const guard(m_mutex);
    m_observer = std::move(begin);
}

} // namespace kelm::host

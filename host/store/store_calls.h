#pragma once

#include <chrono>
#include <functional>
#include <list>
#include <mutex>
#include <optional>

#include "host/store/store.h"
#include "yx/error.h"

namespace kelm::host {

/// The calls of this process that are under way in stores other than the operating system's. A call
/// may wait without end for a store that does not answer; here it is seen how long, and ended.
/// Serves any number of threads.
class StoreCalls {
public:
    using Clock = std::chrono::steady_clock; ///< by which it is seen how long

    /// Why calls were ended.
    enum class End {
        None,      ///< they were not
        Cancelled, ///< the user wants no more
        TimedOut,  ///< no answer came in time
    };

    /// Those of the process.
    static StoreCalls& get();

private:
    struct Entry {
        IStore* store;
        Clock::time_point begin;
    };

public:
    /// A call that is under way as long as this lives.
    class Call {
    public:
        /// `store` must outlive the object.
        explicit Call(IStore& store);
        Call(Call const&) = delete;
        Call& operator=(Call const&) = delete;
        ~Call();

    private:
        std::list<Entry>::iterator m_entry;
    };

    /// When the oldest call that is under way began; nothing if there is none.
    std::optional<Clock::time_point> findOldest();

    /// Gives up every store that has calls under way (`IStore::abandon`), for good. `waited` is for
    /// the words. The first end counts.
    void abandon(End end, std::chrono::seconds waited);

    /// Once calls were ended, throws `CancelledError`, or `yx::CIOError` `IOFailure` "The store did
    /// not answer within N seconds." with "uri". Comes where a call has failed.
    void verifyNotEnded(yx::CURI const& uri);

    /// `begin` is called with each call that begins, until it is set anew; null for nobody. It must
    /// not use stores.
    void setObserver(std::function<void()> begin);

private:
    StoreCalls() = default;

    std::mutex m_mutex;
    std::list<Entry> m_calls;
    std::function<void()> m_observer;
    End m_end = End::None;
    std::chrono::seconds m_waited{0};
};

/// Makes a call of a store, which is noted as under way. Where it fails since calls were ended,
/// `verifyNotEnded` says so.
template <class Operation>
auto callStore(IStore& store, yx::CURI const& uri, Operation const& operation) {
    StoreCalls::Call const call(store);
    try {
        return operation();
    } catch (yx::CIOError const&) {
        StoreCalls::get().verifyNotEnded(uri);
        throw;
    }
}

} // namespace kelm::host

#pragma once

#include <functional>
#include <memory>

#include <sys/types.h>

namespace kelm::ceph {

/// Makes calls of the cluster's client in threads of its own.
///
/// A call that waits for the cluster cannot be ended: the client ends its connection only once all
/// calls have returned. But who waits here for a call can be freed, and the call be left alone. So
/// a call owns all memory that it touches.
///
/// Serves any number of threads, of the process that made it.
class CephCalls {
public:
    /// Returns 0 or more, or a negative `errno` value.
    using Call = std::function<int()>;

    CephCalls();
    CephCalls(CephCalls const&) = delete;
    CephCalls& operator=(CephCalls const&) = delete;

    /// Ends the threads. Those whose calls were left alone go on until these return.
    ~CephCalls();

    /// Makes a call and returns what it returns. `-ECANCELED` if `abandon` is called before the call
    /// has returned, which then goes on; and for any call after that, which is not made. `-ENOMEM`
    /// where there is no memory or no thread for the call.
    int make(Call call) noexcept;

    /// Frees all who wait in `make`, and lets nobody wait there any more.
    void abandon() noexcept;

    bool isAbandoned() const noexcept;

private:
    struct Task;
    struct State;

    static void startThread(std::shared_ptr<State> const& state);
    static void work(State& state);

    /// The threads keep it too.
    std::shared_ptr<State> m_state;
    pid_t m_process;
};

} // namespace kelm::ceph

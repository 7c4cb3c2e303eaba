#pragma once

#include <array>
#include <atomic>
#include <csignal>
#include <iterator>

#include "yx/error.h"

namespace kelm::host {

/// Thrown by long work that the user or the caller stopped: "Cancelled." with code -1.
class CancelledError : public yx::CError {
public:
    CancelledError();
    std::shared_ptr<yx::CError const> clone() const override;
};

/// Asks long work to stop. May be set from another thread and from a signal handler.
class CancelFlag {
public:
    /// Asks the work to stop. There is no way to take that back.
    void set() noexcept { m_set.store(true, std::memory_order_relaxed); }

    /// Whether the work is to stop.
    bool isSet() const noexcept { return m_set.load(std::memory_order_relaxed); }

    /// Throws `CancelledError` if the flag is set.
    void check() const {
        if (isSet())
            throw CancelledError();
    }

private:
    std::atomic<bool> m_set{false};
    static_assert(std::atomic<bool>::is_always_lock_free, "a signal handler sets it");
};

/// Turns SIGINT, SIGTERM and SIGHUP into a set flag for as long as it lives. Signals that the
/// process ignores stay ignored. A second signal of the same kind ends the process, as if there
/// were no handler. A process can have only one such object at a time.
class SignalCancellation {
public:
    /// `flag` must outlive the object.
    explicit SignalCancellation(CancelFlag& flag);
    SignalCancellation(SignalCancellation const&) = delete;
    SignalCancellation& operator=(SignalCancellation const&) = delete;
    ~SignalCancellation();

private:
    static constexpr int kSignals[] = {SIGINT, SIGTERM, SIGHUP};
    std::array<struct sigaction, std::size(kSignals)> m_before{};
};

} // namespace kelm::host

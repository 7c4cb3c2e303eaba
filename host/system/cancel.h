#pragma once

#include <array>
#include <atomic>
#include <csignal>
#include <iterator>

#include "yx/error.h"

namespace kelm::host {

/// Thrown by long work that was told to stop: "Cancelled." with code -1.
class CancelledError : public yx::CError {
public:
    CancelledError();
    std::shared_ptr<yx::CError const> clone() const override;
};

/// Tells long work to stop. May be set from another thread and from a signal handler.
class CancelFlag {
public:
    /// Tells the work to stop; nothing takes that back.
    void set() noexcept { m_set.store(true, std::memory_order_relaxed); }

    /// Whether the work was told to stop.
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

/// Sets a flag on SIGINT, SIGTERM and SIGHUP for as long as it lives, but for those that the process
/// ignores. A second signal of the kind ends the process as if nobody had listened. One at a time in
/// a process.
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

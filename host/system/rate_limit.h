#pragma once

#include <chrono>
#include <functional>

#include "host/system/cancel.h"
#include "yx/base.h"

namespace kelm::host {

/// Holds work to so many bytes a second, by letting it wait. What was not used is kept for a tenth
/// of a second, so that short pauses of the work cost nothing. Serves one thread.
class RateLimit {
public:
    /// Tells the time and waits: the machine, or a test.
    struct Clock {
        /// From whatever moment on.
        std::function<std::chrono::nanoseconds()> now;

        /// May return early.
        std::function<void(std::chrono::nanoseconds)> wait;
    };

    /// `cancel`, which may be null and must outlive the object, ends a wait by `CancelledError`
    /// within a tenth of a second. `bytesPerSecond` is at least 1.
    RateLimit(__int64 bytesPerSecond, CancelFlag const* cancel, Clock clock = clockOfMachine());

    /// Waits until so many bytes may be moved.
    void take(__int64 bytes);

    /// The machine's.
    static Clock clockOfMachine();

private:
    void fill();

    double m_bytesPerSecond;
    CancelFlag const* m_cancel;
    Clock m_clock;
    std::chrono::nanoseconds m_lastFill;

    /// How many bytes may be moved at once; below zero while some have to be waited for.
    double m_bytes = 0;
};

} // namespace kelm::host

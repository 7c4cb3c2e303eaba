#pragma once

#include <chrono>
#include <functional>

namespace kelm::s3 {

/// When requests are sent again. Delays double from one to the next; of each, a random part of up
/// to a half is left out, so that those who were refused together do not come back together.
struct RetryPolicy {
    using Milliseconds = std::chrono::milliseconds;

    int maxAttempts = 6;
    Milliseconds firstDelay{200};
    Milliseconds maxDelay{10000};

    /// No attempt begins later than this after the first one, whatever the server asks for.
    Milliseconds maxTotal{120000};

    /// Replaces the clock, for tests; empty for the system's.
    std::function<Milliseconds()> now;

    /// Replaces waiting, for tests.
    std::function<void(Milliseconds)> wait;
};

} // namespace kelm::s3

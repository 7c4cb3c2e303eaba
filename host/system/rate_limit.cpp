#include "host/system/rate_limit.h"

#include <algorithm>
#include <cassert>
#include <utility>

#include <poll.h>

namespace kelm::host {

namespace {

using std::chrono::nanoseconds;

/// The longest that a cancelled wait goes on.
constexpr nanoseconds kLongestPause = std::chrono::milliseconds{100};

double inSeconds(nanoseconds time) {
    return std::chrono::duration<double>(time).count();
}

} // namespace

RateLimit::Clock RateLimit::clockOfMachine() {
    return {[] {
                return std::chrono::duration_cast<nanoseconds>(
                    std::chrono::steady_clock::now().time_since_epoch());
            },
            [](nanoseconds time) {
                // Unlike a sleep, this ends when a signal comes.
                auto const milliseconds = std::chrono::ceil<std::chrono::milliseconds>(time);
                ::poll(nullptr, 0, static_cast<int>(milliseconds.count()));
            }};
}

RateLimit::RateLimit(__int64 bytesPerSecond, CancelFlag const* cancel, Clock clock)
    : m_bytesPerSecond(static_cast<double>(bytesPerSecond)),
      m_cancel(cancel),
      m_clock(std::move(clock)),
      m_lastFill(m_clock.now()) {
    assert(bytesPerSecond > 0);
}

void RateLimit::fill() {
    nanoseconds const now = m_clock.now();
    double const most = m_bytesPerSecond * inSeconds(kLongestPause);
    m_bytes = std::min(most, m_bytes + m_bytesPerSecond * inSeconds(now - m_lastFill));
    m_lastFill = now;
}

void RateLimit::take(__int64 bytes) {
    assert(bytes >= 0);
    fill();
    m_bytes -= static_cast<double>(bytes);
    while (m_bytes < 0) {
        if (m_cancel)
            m_cancel->check();
        double const seconds = std::min(inSeconds(kLongestPause), -m_bytes / m_bytesPerSecond);
        m_clock.wait(std::max(nanoseconds{1}, nanoseconds{static_cast<__int64>(seconds * 1e9)}));
        fill();
    }
    if (m_cancel)
        m_cancel->check();
}

} // namespace kelm::host

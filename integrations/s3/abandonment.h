#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>

namespace kelm::s3 {

/// Tells all who wait for a server to give up. Safe for several threads.
class Abandonment {
public:
    /// There is no way to take that back.
    void set() noexcept;

    std::atomic<bool> const& getFlag() const { return m_isSet; }
    bool isSet() const { return m_isSet.load(); }

    /// Waits; less long once it is set.
    void wait(std::chrono::milliseconds duration);

private:
    std::atomic<bool> m_isSet{false};
    std::mutex m_mutex;
    std::condition_variable m_changed;
};

} // namespace kelm::s3

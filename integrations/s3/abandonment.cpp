#include "integrations/s3/abandonment.h"

namespace kelm::s3 {

void Abandonment::set() noexcept {
    m_isSet = true;
    {
        // Whoever has looked, and does not wait yet, is waited for.
        std::lock_guard const guard(m_mutex);
    }
    m_changed.notify_all();
}

void Abandonment::wait(std::chrono::milliseconds duration) {
    std::unique_lock lock(m_mutex);
    m_changed.wait_for(lock, duration, [this] { return isSet(); });
}

} // namespace kelm::s3

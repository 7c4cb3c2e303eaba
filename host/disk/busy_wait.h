#pragma once

#include <chrono>

#include "host/system/cancel.h"
#include "yx/error.h"

namespace kelm::host {

/// Whether an error, or one of its causes, says that a disk is in use: that somebody holds its lock
/// file, or the lock on one of its files, or is just taking the lock file away.
bool isInUse(yx::CError const& error);

/// Waits for disks that are in use, for a limited time in all. Serves one thread.
class BusyWait {
public:
    /// Waits for nothing.
    BusyWait() = default;

    /// `cancel`, which may be null and must outlive the object, ends a wait by `CancelledError`
    /// within a tenth of a second.
    BusyWait(std::chrono::milliseconds limit, CancelFlag const* cancel)
        : m_left(limit), m_cancel(cancel) {}

    /// Whether there is time left.
    bool isOn() const { return m_left.count() > 0; }

    /// The time left in whole seconds, what has begun included, for another program that waits too.
    std::chrono::seconds getLeftSeconds() const {
        return std::chrono::ceil<std::chrono::seconds>(m_left);
    }

    /// Runs `open`, and again every tenth of a second as long as it fails with an error that
    /// `isInUse` knows, until the time is over; the last such error passes through, as do all
    /// others. What `open` did before it failed must be done anew or undone.
    template <class Open>
    auto retry(Open const& open) {
        while (true) {
            try {
                return open();
            } catch (yx::CError const& error) {
                if (!isOn() || !isInUse(error))
                    throw;
            }
            pause();
        }
    }

private:
    void pause();

    std::chrono::milliseconds m_left{0};
    CancelFlag const* m_cancel = nullptr;
};

} // namespace kelm::host

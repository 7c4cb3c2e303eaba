#include "host/disk/busy_wait.h"

#include <algorithm>

#include <poll.h>

#include "host/disk/file_locks.h"
#include "yx/lock_file.h"

namespace kelm::host {

namespace {

using WaitClock = std::chrono::steady_clock;

/// Between two attempts. Nobody who waits for a disk minds it, and the holder hardly notices.
constexpr std::chrono::milliseconds kPause{100};

/// The other errors of lock files do not pass by themselves: a lock file that cannot be made, or
/// whose name belongs to another file.
constexpr char const* kPassingMessages[] = {yx::kLockFileInUseMessage, kFileInUseMessage,
                                            yx::kLockFileIsRemovedMessage};

} // namespace

bool isInUse(yx::CError const& error) {
    for (yx::CError const* each = &error; each; each = each->getCause()) {
        if (dynamic_cast<yx::CLockFileError const*>(each) &&
            std::any_of(std::begin(kPassingMessages), std::end(kPassingMessages),
                        [&](char const* message) { return each->getMessage() == message; }))
            return true;
    }
    return false;
}

void BusyWait::pause() {
    WaitClock::time_point const start = WaitClock::now();
    // A signal ends the pause at once; one that came just before is noticed after it.
    ::poll(nullptr, 0, static_cast<int>(std::min(kPause, m_left).count()));
    if (m_cancel)
        m_cancel->check();
    // At least something, so that signals do not make it endless.
    auto const passed =
        std::chrono::duration_cast<std::chrono::milliseconds>(WaitClock::now() - start);
    m_left -= std::clamp(passed, std::chrono::milliseconds{1}, m_left);
}

} // namespace kelm::host

#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <optional>
#include <thread>

#include "host/system/cancel.h"

namespace kelm::host {

/// Looks after the stores that this process waits for: says so when a call takes long, and ends the
/// calls when the user wants no more or the time is up. It costs nothing until a store other than
/// the operating system's is used; then a thread looks several times a second. A process has one at
/// a time.
class StoreWatch {
public:
    /// How patient it is.
    struct Patience {
        /// A call that takes so long is told of, and again after each such time.
        std::chrono::milliseconds untilWords{5000};

        /// A call that began so long ago is ended once the flag is set.
        std::chrono::milliseconds untilCancel{5000};

        /// A call that takes so long is ended; without, none is.
        std::optional<std::chrono::seconds> untilTimeout = std::nullopt;

        /// How often it looks.
        std::chrono::milliseconds step{100};
    };

    /// Is told for how long a call has taken, in whole seconds, by another thread.
    using TellWaiting = std::function<void(std::chrono::seconds waited)>;

    /// `cancel` must outlive the object.
    StoreWatch(CancelFlag const& cancel, TellWaiting tell);
    StoreWatch(CancelFlag const& cancel, TellWaiting tell, Patience const& patience);
    StoreWatch(StoreWatch const&) = delete;
    StoreWatch& operator=(StoreWatch const&) = delete;
    ~StoreWatch();

    /// Calls that take so long are ended from now on, with the words of
    /// `StoreCalls::verifyNotEnded`.
    void setTimeout(std::chrono::seconds limit);

private:
    void begin();
    void run();
    void look();

    CancelFlag const& m_cancel;
    TellWaiting m_tell;
    Patience m_patience;
    std::mutex m_mutex;
    std::condition_variable m_wake;
    bool m_isEnding = false;

    /// How often the wait that is going on was told of.
    __int64 m_toldTimes = 0;
    std::thread m_thread;
};

} // namespace kelm::host

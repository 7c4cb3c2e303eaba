#pragma once

#include <chrono>
#include <functional>
#include <string>

#include "host/system/progress.h"

namespace kelm::host {

/// Progress for programs: a JSON object in one line, once a second, and at the end of each piece of
/// work, where all is done.
class ProgressLines {
public:
    /// Gets a line with its end.
    using Write = std::function<void(std::string const& line)>;

    /// The time, from whatever moment on.
    using Now = std::function<std::chrono::nanoseconds()>;

    /// `label` says what is being done, such as "import"; letters only.
    ProgressLines(char const* label, Write write, Now now);

    /// The same with the time of this machine.
    ProgressLines(char const* label, Write write);
    ProgressLines(ProgressLines const&) = delete;
    ProgressLines& operator=(ProgressLines const&) = delete;

    /// Writes a line if it is time to, or if all is done. `totalBytes` is -1 if it is not known.
    void show(__int64 doneBytes, __int64 totalBytes);

    /// A callback that calls `show`. The object must outlive it.
    ProgressCallback callback();

private:
    char const* m_label;
    Write m_write;
    Now m_now;
    std::chrono::nanoseconds m_start;
    std::chrono::nanoseconds m_nextLine;
};

/// The line without its end: "progress" with the label, "doneBytes", "totalBytes", "bytesPerSecond"
/// and "secondsLeft"; what is not known is null.
std::string formatProgressLine(char const* label, __int64 doneBytes, __int64 totalBytes,
                               double elapsedSeconds);

} // namespace kelm::host

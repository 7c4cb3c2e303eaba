#pragma once

#include <functional>
#include <string>

#include "yx/base.h"

namespace kelm::host {

/// Receives how far long work has come, in bytes of the disk or image. Called on the thread that
/// started the work, about ten times a second at most, and once at the end.
using ProgressCallback = std::function<void(__int64 doneBytes, __int64 totalBytes)>;

/// Passes progress on to a callback, no more often than a person can read. Work can report to it
/// after every step.
class ProgressThrottle {
public:
    /// `callback` may be empty: then nothing is reported.
    explicit ProgressThrottle(ProgressCallback callback);

    /// `totalBytes` is -1 if it is not known.
    void report(__int64 doneBytes, __int64 totalBytes);

private:
    ProgressCallback m_callback;
    __int64 m_nextReportNanoseconds = 0;
};

/// A line on a terminal with a bar, the rate and the time left, which is removed at the end. Shows
/// nothing if `fileDescriptor` is not a terminal.
class ProgressBar {
public:
    /// `label` says what is being done, such as "import".
    ProgressBar(char const* label, int fileDescriptor);
    ProgressBar(ProgressBar const&) = delete;
    ProgressBar& operator=(ProgressBar const&) = delete;
    ~ProgressBar();

    /// Draws the line. `totalBytes` is -1 if it is not known.
    void show(__int64 doneBytes, __int64 totalBytes);

    /// Removes the line until the next `show`, to make room for other output.
    void hide();

    /// A callback that calls `show`. The bar must outlive it.
    ProgressCallback callback();

private:
    char const* m_label;
    int m_fileDescriptor;
    bool m_isTerminal;
    bool m_shown = false;
    __int64 m_startNanoseconds;
};

/// The bar's line without its terminal codes: label, percentage, bar, rate, time left.
std::string formatProgress(char const* label, __int64 doneBytes, __int64 totalBytes,
                           double elapsedSeconds);

} // namespace kelm::host

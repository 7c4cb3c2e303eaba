#pragma once

#include <functional>
#include <string>

#include "yx/base.h"

namespace kelm::host {

/// How far long work has come, in bytes of the disk or image. Called on the thread that does the
/// work, at most some ten times a second, and once at the end.
using ProgressCallback = std::function<void(__int64 doneBytes, __int64 totalBytes)>;

/// Calls a callback no more often than a person can read, so that work may tell it everything.
class ProgressThrottle {
public:
    /// `callback` may be empty: then nothing is reported.
    explicit ProgressThrottle(ProgressCallback callback);

    /// `totalBytes` of -1 means that nobody knows.
    void report(__int64 doneBytes, __int64 totalBytes);

private:
    ProgressCallback m_callback;
    __int64 m_nextReportNanoseconds = 0;
};

/// A line on a terminal that shows a bar, the rate and the time left, and goes away at the end.
/// Shows nothing if `fileDescriptor` is no terminal.
class ProgressBar {
public:
    /// `label` says what is being done, such as "import".
    ProgressBar(char const* label, int fileDescriptor);
    ProgressBar(ProgressBar const&) = delete;
    ProgressBar& operator=(ProgressBar const&) = delete;
    ~ProgressBar();

    /// Draws the line. `totalBytes` of -1 means that nobody knows.
    void show(__int64 doneBytes, __int64 totalBytes);

    /// Takes the line off the terminal, so that other text can go there, until the next `show`.
    void hide();

    /// A callback that shows; the bar must outlive it.
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

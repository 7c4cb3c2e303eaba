#include "host/system/progress.h"

#include <algorithm>
#include <array>
#include <cassert>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <utility>

#include <unistd.h>

#include "host/system/size_text.h"

namespace kelm::host {

namespace {

constexpr __int64 kReportIntervalNanoseconds = 100'000'000;
constexpr int kBarWidth = 30;

__int64 nowNanoseconds() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

std::string formatDuration(double seconds) {
    constexpr double kLongestSeconds = 999 * 3600.0;
    std::array<char, 32> text{};
    long long const whole = std::llround(std::min(seconds, kLongestSeconds));
    if (whole >= 3600)
        std::snprintf(text.data(), text.size(), "%lld:%02lld:%02lld", whole / 3600, whole / 60 % 60,
                      whole % 60);
    else
        std::snprintf(text.data(), text.size(), "%lld:%02lld", whole / 60, whole % 60);
    return text.data();
}

/// Writes to a terminal. A failure is ignored: the bar is only for show.
void writeLine(int fileDescriptor, std::string const& text) {
    [[maybe_unused]] ssize_t const written = ::write(fileDescriptor, text.data(), text.size());
}

} // namespace

ProgressThrottle::ProgressThrottle(ProgressCallback callback) : m_callback(std::move(callback)) {}

void ProgressThrottle::report(__int64 doneBytes, __int64 totalBytes) {
    assert(doneBytes >= 0 && totalBytes >= -1);
    if (!m_callback)
        return;
    __int64 const now = nowNanoseconds();
    if (doneBytes != totalBytes && now < m_nextReportNanoseconds)
        return;
    assert(now >= m_nextReportNanoseconds - kReportIntervalNanoseconds);
    m_nextReportNanoseconds = now + kReportIntervalNanoseconds;
    m_callback(doneBytes, totalBytes);
}

std::string formatProgress(char const* label, __int64 doneBytes, __int64 totalBytes,
                           double elapsedSeconds) {
    std::string line = label;
    double const rate = elapsedSeconds > 0 ? static_cast<double>(doneBytes) / elapsedSeconds : 0;
    if (totalBytes > 0) {
        double const part =
            std::min(1.0, static_cast<double>(doneBytes) / static_cast<double>(totalBytes));
        auto const filled = static_cast<std::size_t>(part * kBarWidth);
        assert(filled <= kBarWidth);
        std::array<char, 16> percent{};
        std::snprintf(percent.data(), percent.size(), " %3d%% ", static_cast<int>(part * 100));
        line += percent.data();
        line += "[" + std::string(filled, '#') + std::string(kBarWidth - filled, '.') + "]";
    }
    line += " " + formatSize(doneBytes);
    if (rate > 0)
        line += ", " + formatSize(static_cast<__int64>(rate)) + "/s";
    if (rate > 0 && totalBytes > doneBytes)
        line += ", " + formatDuration(static_cast<double>(totalBytes - doneBytes) / rate) + " left";
    return line;
}

ProgressBar::ProgressBar(char const* label, int fileDescriptor)
    : m_label(label),
      m_fileDescriptor(fileDescriptor),
      m_isTerminal(::isatty(fileDescriptor) == 1),
      m_startNanoseconds(nowNanoseconds()) {}

ProgressBar::~ProgressBar() {
    hide();
}

void ProgressBar::hide() {
    constexpr char kClearLine[] = "\r\x1b[K";
    assert(!m_shown || m_isTerminal);
    if (m_shown)
        writeLine(m_fileDescriptor, kClearLine);
    m_shown = false;
}

void ProgressBar::show(__int64 doneBytes, __int64 totalBytes) {
    constexpr char kStartOfLine[] = "\r";
    constexpr char kClearRest[] = "\x1b[K";
    if (!m_isTerminal)
        return;
    m_shown = true;
    double const elapsedSeconds = static_cast<double>(nowNanoseconds() - m_startNanoseconds) / 1e9;
    writeLine(m_fileDescriptor, kStartOfLine +
                                    formatProgress(m_label, doneBytes, totalBytes, elapsedSeconds) +
                                    kClearRest);
}

ProgressCallback ProgressBar::callback() {
    return [this](__int64 doneBytes, __int64 totalBytes) { show(doneBytes, totalBytes); };
}

} // namespace kelm::host

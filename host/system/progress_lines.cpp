#include "host/system/progress_lines.h"

#include <cmath>
#include <utility>

namespace kelm::host {

namespace {

constexpr std::chrono::nanoseconds kLineInterval = std::chrono::seconds{1};

std::chrono::nanoseconds timeOfMachine() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
        std::chrono::steady_clock::now().time_since_epoch());
}

std::string numberOrNull(bool isKnown, double value) {
    return isKnown ? std::to_string(std::llround(value)) : "null";
}

} // namespace

ProgressLines::ProgressLines(char const* label, Write write, Now now)
    : m_label(label),
      m_write(std::move(write)),
      m_now(std::move(now)),
      m_start(m_now()),
      m_nextLine(m_start + kLineInterval) {}

ProgressLines::ProgressLines(char const* label, Write write)
    : ProgressLines(label, std::move(write), timeOfMachine) {}

void ProgressLines::show(__int64 doneBytes, __int64 totalBytes) {
    std::chrono::nanoseconds const now = m_now();
    if (doneBytes != totalBytes && now < m_nextLine)
        return;
    m_nextLine = now + kLineInterval;
    double const elapsedSeconds = std::chrono::duration<double>(now - m_start).count();
    m_write(formatProgressLine(m_label, doneBytes, totalBytes, elapsedSeconds) + "\n");
}

ProgressCallback ProgressLines::callback() {
    return [this](__int64 doneBytes, __int64 totalBytes) { show(doneBytes, totalBytes); };
}

std::string formatProgressLine(char const* label, __int64 doneBytes, __int64 totalBytes,
                               double elapsedSeconds) {
    double const rate = elapsedSeconds > 0 ? static_cast<double>(doneBytes) / elapsedSeconds : 0;
    bool const isTotalKnown = totalBytes >= 0;
    auto const leftBytes = static_cast<double>(totalBytes - doneBytes);
    bool const isDone = doneBytes == totalBytes;
    bool const isLeftKnown = isDone || (isTotalKnown && rate > 0);
    return std::string("{\"progress\":\"") + label +
           "\",\"doneBytes\":" + std::to_string(doneBytes) +
           ",\"totalBytes\":" + (isTotalKnown ? std::to_string(totalBytes) : "null") +
           ",\"bytesPerSecond\":" + numberOrNull(elapsedSeconds > 0, rate) +
           ",\"secondsLeft\":" + numberOrNull(isLeftKnown, isDone ? 0 : leftBytes / rate) + "}";
}

} // namespace kelm::host

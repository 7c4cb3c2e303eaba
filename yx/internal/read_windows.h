#pragma once

#include <algorithm>
#include <array>

#include "yx/internal/read_window.h"

namespace yx::detail {

/// The windows of a stream that is read in small pieces. Internal.
///
/// Each window follows one sequence of reads. The first read of a sequence fetches no more than a
/// page, or just itself if it is longer; each read that goes on where a window ended makes the next
/// fetch larger. The least recently used window gives way to a new sequence, so several sequences
/// and scattered reads side by side leave each other's windows alone.
class ReadWindows {
public:
    static constexpr int kCount = 4;
    static constexpr int kFirstFetchBytes = 4 * 1024;
    static constexpr int kFetchGrowth = 4;

    /// Large enough that the calls of the operating system do not count, small enough for the
    /// processor's cache to hold a window until it is read out.
    static constexpr int kMaxFetchBytes = 256 * 1024;
    static_assert(kCount * kMaxFetchBytes <= 1024 * 1024,
                  "the windows of a stream hold 1 MiB together at most");

    /// `firstFetchBytes` is what the first sequence of all begins with, within the limits above.
    explicit ReadWindows(int firstFetchBytes)
        : m_firstFetchBytes(std::clamp(firstFetchBytes, kFirstFetchBytes, kMaxFetchBytes)) {}

    /// The window that holds `position`, null if none; it counts as used.
    ReadWindow* find(__int64 position);

    /// The window, restarted, that is to follow a read at `position` that no window holds.
    ReadWindow& prepare(__int64 position);

    /// The operations of `ReadWindow` on all of them.
    void patch(__int64 position, unsigned char const* source, int sizeBytes);
    void drop(__int64 position, __int64 sizeBytes);
    void clear();

private:
    ReadWindow* findContinued(__int64 position);

    std::array<ReadWindow, kCount> m_windows;
    unsigned long long m_useCount = 0;

    /// Of the next sequence.
    int m_firstFetchBytes;
};

} // namespace yx::detail

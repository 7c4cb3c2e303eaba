#include "yx/internal/read_windows.h"

#include <algorithm>
#include <cassert>
#include <utility>

namespace yx::detail {

ReadWindow* ReadWindows::find(__int64 position) {
    for (ReadWindow& window : m_windows) {
        if (window.holds(position)) {
            window.setLastUse(++m_useCount);
            return &window;
        }
    }
    return nullptr;
}

ReadWindow& ReadWindows::prepare(__int64 position) {
    assert(std::ranges::none_of(
        m_windows, [position](ReadWindow const& window) { return window.holds(position); }));
    ReadWindow* window = findContinued(position);
    if (window) {
        window->restart(std::min(window->getFetchSizeBytes() * kFetchGrowth, kMaxFetchBytes));
    } else {
        window = &*std::ranges::min_element(m_windows, {}, &ReadWindow::getLastUse);
        window->restart(std::exchange(m_firstFetchBytes, kFirstFetchBytes));
    }
    window->setLastUse(++m_useCount);
    assert(window->getFetchSizeBytes() >= kFirstFetchBytes &&
           window->getFetchSizeBytes() <= kMaxFetchBytes);
    return *window;
}

void ReadWindows::patch(__int64 position, unsigned char const* source, int sizeBytes) {
    for (ReadWindow& window : m_windows)
        window.patch(position, source, sizeBytes);
}

void ReadWindows::drop(__int64 position, __int64 sizeBytes) {
    for (ReadWindow& window : m_windows)
        window.drop(position, sizeBytes);
}

void ReadWindows::clear() {
    for (ReadWindow& window : m_windows)
        window.clear();
}

ReadWindow* ReadWindows::findContinued(__int64 position) {
    auto const window = std::ranges::find_if(m_windows, [position](ReadWindow const& candidate) {
        return candidate.isContinuedAt(position);
    });
    return window == m_windows.end() ? nullptr : &*window;
}

} // namespace yx::detail

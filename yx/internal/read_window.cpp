#include "yx/internal/read_window.h"

#include <algorithm>
#include <cassert>

#include "yx/memory.h"

namespace yx::detail {

bool ReadWindow::isContinuedAt(__int64 position) const {
    return m_position >= 0 && position >= getEnd() && position - getEnd() <= kMaxSkipBytes;
}

void ReadWindow::clear() {
    m_position = -1;
    m_sizeBytes = 0;
}

void ReadWindow::restart(int fetchSizeBytes) {
    clear();
    m_fetchSizeBytes = fetchSizeBytes;
}

unsigned char* ReadWindow::reserve() {
    if (m_capacityBytes < m_fetchSizeBytes) {
        m_data.reset();
        m_capacityBytes = 0;
        m_data = std::make_unique_for_overwrite<unsigned char[]>(
            static_cast<std::size_t>(m_fetchSizeBytes));
        m_capacityBytes = m_fetchSizeBytes;
    }
    return m_data.get();
}

void ReadWindow::fill(__int64 position, int sizeBytes) {
    assert(position >= 0 && sizeBytes >= 0 && sizeBytes <= m_capacityBytes);
    m_position = position;
    m_sizeBytes = sizeBytes;
}

void ReadWindow::patch(__int64 position, unsigned char const* source, int sizeBytes) {
    __int64 const begin = std::max(position, m_position);
    __int64 const end = std::min(position + sizeBytes, getEnd());
    if (begin < end) {
        assert(end - m_position <= m_capacityBytes);
        copyMemory(m_data.get() + (begin - m_position), source + (begin - position),
                   static_cast<std::size_t>(end - begin));
    }
}

void ReadWindow::drop(__int64 position, __int64 sizeBytes) {
    if (position < getEnd() && m_position < position + sizeBytes)
        m_sizeBytes = static_cast<int>(std::max<__int64>(0, position - m_position));
    assert(m_sizeBytes >= 0 && m_sizeBytes <= m_capacityBytes);
}

} // namespace yx::detail

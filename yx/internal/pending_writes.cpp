#include "yx/internal/pending_writes.h"

#include <algorithm>
#include <cassert>

#include "yx/internal/positioned_stream.h"
#include "yx/memory.h"

namespace yx::detail {

__int64 PendingWrites::getEnd() const {
    __int64 end = 0;
    for (Extent const& extent : used())
        end = std::max(end, extent.getEnd());
    return end;
}

bool PendingWrites::tryAdd(__int64 position, unsigned char const* source, int sizeBytes) {
    assert(position >= 0 && sizeBytes > 0);
    Extent* const joined = findJoinable(position);
    bool const isFree = std::ranges::none_of(used(), [&](Extent const& extent) {
        return &extent != joined && extent.position < position + sizeBytes &&
               position < extent.getEnd();
    });
    if (!isFree || m_totalBytes + sizeBytes > kMaxBytes)
        return false;

    if (joined) {
        join(*joined, position, source, sizeBytes);
        assert(isConsistent());
        return true;
    }
    if (m_count == m_extents.size())
        return false;
    Extent& extent = m_extents[m_count];
    extent.bytes.assign(source, source + sizeBytes);
    extent.position = position;
    ++m_count;
    m_totalBytes += sizeBytes;
    assert(isConsistent());
    return true;
}

void PendingWrites::overlay(__int64 position, unsigned char* target, int sizeBytes) const {
    for (Extent const& extent : used()) {
        __int64 const begin = std::max(position, extent.position);
        __int64 const end = std::min(position + sizeBytes, extent.getEnd());
        if (begin < end) {
            copyMemory(target + (begin - position), extent.bytes.data() + (begin - extent.position),
                       static_cast<std::size_t>(end - begin));
        }
    }
}

void PendingWrites::cut(__int64 length) {
    for (std::size_t i = m_count; i-- > 0;) {
        Extent& extent = m_extents[i];
        if (extent.position >= length) {
            remove(i);
        } else if (extent.getEnd() > length) {
            m_totalBytes -= static_cast<int>(extent.getEnd() - length);
            extent.bytes.resize(static_cast<std::size_t>(length - extent.position));
        }
    }
    assert(isConsistent() && getEnd() <= length);
}

PendingWrites::Extent const* PendingWrites::getSoleEndingAt(__int64 position) const {
    if (m_count == 1 && m_extents.front().getEnd() == position)
        return &m_extents.front();
    return nullptr;
}

void PendingWrites::writeBack(PositionedStream& stream) {
    assert(isConsistent());
    __int64 const length = m_count > 1 ? stream.getLength() : 0;
    while (m_count > 0) {
        auto const extents = used();
        auto next = std::ranges::find_if(
            extents, [&](Extent const& extent) { return extent.getEnd() > length; });
        if (next == extents.end())
            next = extents.begin();
        stream.write(next->position, next->bytes.data(), next->getSizeBytes(), nullptr);
        remove(static_cast<std::size_t>(next - extents.begin()));
    }
}

void PendingWrites::clear() {
    while (m_count > 0)
        remove(m_count - 1);
}

PendingWrites::Extent* PendingWrites::findJoinable(__int64 position) {
    Extent* joinable = nullptr;
    for (Extent& extent : used()) {
        if (position < extent.position || position > extent.getEnd())
            continue;
        // Where one extent ends and the next begins, the write goes over the one that begins.
        if (!joinable || position < extent.getEnd())
            joinable = &extent;
    }
    return joinable;
}

void PendingWrites::join(Extent& extent, __int64 position, unsigned char const* source,
                         int sizeBytes) {
    auto const offset = static_cast<std::size_t>(position - extent.position);
    auto const overwritten =
        std::min(static_cast<std::size_t>(sizeBytes), extent.bytes.size() - offset);
    extent.bytes.insert(extent.bytes.end(), source + overwritten, source + sizeBytes);
    copyMemory(extent.bytes.data() + offset, source, overwritten);
    m_totalBytes += sizeBytes - static_cast<int>(overwritten);
}

void PendingWrites::remove(std::size_t index) {
    m_totalBytes -= m_extents[index].getSizeBytes();
    m_extents[index].bytes.clear();

    auto const first = m_extents.begin() + static_cast<std::ptrdiff_t>(index);
    std::rotate(first, first + 1, m_extents.begin() + static_cast<std::ptrdiff_t>(m_count));
    --m_count;

    // Of two spare pieces of memory the larger one stays.
    if (m_count + 1 < m_extents.size()) {
        Extent& spare = m_extents[m_count];
        Extent& formerSpare = m_extents[m_count + 1];
        if (formerSpare.bytes.capacity() > spare.bytes.capacity())
            spare.bytes.swap(formerSpare.bytes);
        formerSpare.bytes = {};
    }
}

bool PendingWrites::isConsistent() const {
    int totalBytes = 0;
    for (Extent const& extent : used()) {
        bool const isDisjoint = std::ranges::none_of(used(), [&extent](Extent const& other) {
            return &other != &extent && other.position < extent.getEnd() &&
                   extent.position < other.getEnd();
        });
        if (extent.bytes.empty() || !isDisjoint)
            return false;
        totalBytes += extent.getSizeBytes();
    }
    return totalBytes == m_totalBytes && totalBytes <= kMaxBytes;
}

} // namespace yx::detail

#include "yx/internal/memory_file.h"

#include <algorithm>
#include <cassert>

#include "yx/memory.h"

namespace yx::detail {

__int64 MemoryFile::getLength() const {
    std::lock_guard const lock(m_mutex);
    return m_length;
}

int MemoryFile::read(__int64 position, void* target, int sizeBytes) const {
    assert(position >= 0 && sizeBytes >= 0);
    std::lock_guard const lock(m_mutex);
    auto const count =
        static_cast<int>(std::clamp<__int64>(m_length - position, 0, __int64{sizeBytes}));
    auto* bytes = static_cast<unsigned char*>(target);
    for (int done = 0; done < count;) {
        auto const offset = static_cast<int>((position + done) % kChunkSizeBytes);
        int const step = std::min(count - done, kChunkSizeBytes - offset);
        auto const chunk = m_chunks.find((position + done) / kChunkSizeBytes);
        if (chunk == m_chunks.end())
            initMemory(bytes + done, 0, static_cast<std::size_t>(step));
        else
            copyMemory(bytes + done, chunk->second->data() + offset,
                       static_cast<std::size_t>(step));
        done += step;
    }
    return count;
}

void MemoryFile::write(__int64 position, void const* source, int sizeBytes) {
    assert(position >= 0 && sizeBytes >= 0);
    std::lock_guard const lock(m_mutex);
    auto const* bytes = static_cast<unsigned char const*>(source);
    for (int done = 0; done < sizeBytes;) {
        auto const offset = static_cast<int>((position + done) % kChunkSizeBytes);
        int const step = std::min(sizeBytes - done, kChunkSizeBytes - offset);
        writeToChunk((position + done) / kChunkSizeBytes, offset, bytes + done, step);
        done += step;
        m_length = std::max(m_length, position + done);
    }
}

void MemoryFile::setLength(__int64 length) {
    std::lock_guard const lock(m_mutex);
    if (length < m_length) {
        auto const offset = static_cast<std::size_t>(length % kChunkSizeBytes);
        auto firstCut = m_chunks.lower_bound(length / kChunkSizeBytes);
        if (offset > 0 && firstCut != m_chunks.end() &&
            firstCut->first == length / kChunkSizeBytes) {
            std::fill(firstCut->second->begin() + static_cast<std::ptrdiff_t>(offset),
                      firstCut->second->end(), static_cast<unsigned char>(0));
            ++firstCut;
        }
        m_chunks.erase(firstCut, m_chunks.end());
    }
    m_length = length;
    assert(m_chunks.empty() || m_chunks.rbegin()->first * kChunkSizeBytes < m_length);
}

RangeLocks::Owner MemoryFile::makeLockOwner() {
    std::lock_guard const lock(m_mutex);
    return ++m_lastLockOwner;
}

std::optional<RangeLocks::Token> MemoryFile::tryLock(RangeLocks::Range const& range) {
    std::lock_guard const lock(m_mutex);
    return m_locks.tryLock(range);
}

void MemoryFile::unlock(RangeLocks::Token token) noexcept {
    std::lock_guard const lock(m_mutex);
    m_locks.unlock(token);
}

void MemoryFile::writeToChunk(__int64 index, int offset, unsigned char const* source,
                              int sizeBytes) {
    assert(offset >= 0 && sizeBytes > 0 && offset + sizeBytes <= kChunkSizeBytes);
    auto const size = static_cast<std::size_t>(sizeBytes);
    auto chunk = m_chunks.find(index);
    if (chunk == m_chunks.end()) {
        if (isAllZero(source, size))
            return;
        auto fresh = sizeBytes == kChunkSizeBytes ? std::make_unique_for_overwrite<Chunk>()
                                                  : std::make_unique<Chunk>();
        chunk = m_chunks.emplace(index, std::move(fresh)).first;
    }
    copyMemory(chunk->second->data() + offset, source, size);
}

} // namespace yx::detail

#pragma once

#include <array>
#include <map>
#include <memory>
#include <mutex>
#include <optional>

#include "yx/base.h"
#include "yx/internal/range_locks.h"

namespace yx::detail {

/// The content and the locks of one file in memory. Internal.
///
/// The content is kept in chunks, and a chunk that nobody wrote anything but zeros to does not
/// exist, so length alone costs nothing. All operations are safe for several threads.
class MemoryFile {
public:
    __int64 getLength() const;

    /// Reads up to `sizeBytes` bytes; fewer only at the end. Returns the count.
    int read(__int64 position, void* target, int sizeBytes) const;

    /// Writes all bytes, also past the end. Position and size together must fit in 63 bits. Throws
    /// `std::bad_alloc`; what is then in the range is not defined.
    void write(__int64 position, void const* source, int sizeBytes);

    void setLength(__int64 length);

    /// A new owner of locks.
    RangeLocks::Owner makeLockOwner();

    /// Those of `RangeLocks`.
    std::optional<RangeLocks::Token> tryLock(RangeLocks::Range const& range);
    void unlock(RangeLocks::Token token) noexcept;

private:
    static constexpr int kChunkSizeBytes = 64 * 1024;
    using Chunk = std::array<unsigned char, kChunkSizeBytes>;

    void writeToChunk(__int64 index, int offset, unsigned char const* source, int sizeBytes);

    mutable std::mutex m_mutex;
    __int64 m_length = 0;

    /// By position in chunks. Bytes past the length are zero.
    std::map<__int64, std::unique_ptr<Chunk>> m_chunks;

    RangeLocks m_locks;
    RangeLocks::Owner m_lastLockOwner = 0;
};

} // namespace yx::detail

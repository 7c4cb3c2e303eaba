#include "yx/internal/memory_file_stream.h"

#include <cassert>
#include <cerrno>
#include <new>
#include <optional>

#include "yx/internal/file_error.h"
#include "yx/internal/stream_error.h"

namespace yx {

namespace {

/// Keeps the file, so that the range stays locked when the stream has gone.
class CMemoryRangeLock : public CBase, public virtual IStreamLock {
public:
    explicit CMemoryRangeLock(std::shared_ptr<detail::MemoryFile> file) : m_file(std::move(file)) {}
    CMemoryRangeLock(CMemoryRangeLock const&) = delete;
    CMemoryRangeLock& operator=(CMemoryRangeLock const&) = delete;
    ~CMemoryRangeLock() override {
        if (m_token)
            m_file->unlock(*m_token);
    }

    /// Called once. Whether no other holder is in the way.
    bool tryLock(detail::RangeLocks::Range const& range) {
        assert(!m_token);
        m_token = m_file->tryLock(range);
        return m_token.has_value();
    }

private:
    std::shared_ptr<detail::MemoryFile> m_file;

    /// Absent until the range is locked.
    std::optional<detail::RangeLocks::Token> m_token;
};

} // namespace

CMemoryFileStream::CMemoryFileStream(std::shared_ptr<detail::MemoryFile> file, CURI const& uri,
                                     Access access)
    : CFileStream("CMemoryFileStream", uri, access),
      m_file(std::move(file)),
      m_lockOwner(m_file->makeLockOwner()) {}

__int64 CMemoryFileStream::getLength() const {
    requireOpen();
    return m_file->getLength();
}

void CMemoryFileStream::close() {
    m_file.reset();
}

void CMemoryFileStream::flush() {
    requireOpen();
}

void CMemoryFileStream::setLength(__int64 length) {
    requireWritable();
    if (length < 0)
        detail::throwBadLength(uri(), length);
    m_file->setLength(length);
}

int CMemoryFileStream::readAt(__int64 position, void* target, int sizeBytes) const {
    return m_file->read(position, target, sizeBytes);
}

void CMemoryFileStream::writeAt(__int64 position, Piece const* pieces, int count,
                                __int64 sizeBytes) {
    try {
        __int64 next = position;
        for (int i = 0; i < count; ++i) {
            m_file->write(next, pieces[i].data, pieces[i].sizeBytes);
            next += pieces[i].sizeBytes;
        }
    } catch (std::bad_alloc const&) {
        throw detail::makeFileError(
            detail::FileAction::Write, ENOSPC,
            detail::makeRangeProps(uri(), position, "bytesToWrite", sizeBytes));
    }
}

P<IStreamLock> CMemoryFileStream::lockAt(__int64 position, __int64 length, bool exclusive) {
    // Made first: a range would stay locked if memory ran out behind it.
    P<CMemoryRangeLock> const lock = makeObject<CMemoryRangeLock>(m_file);
    if (!lock->tryLock({m_lockOwner, position, position + length, exclusive}))
        detail::throwRangeLocked(uri(), position, length);
    return lock;
}

} // namespace yx

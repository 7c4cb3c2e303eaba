#include "yx/memory_file_stream.h"

#include <cerrno>
#include <limits>
#include <new>

#include "yx/file_error.h"
#include "yx/stream_error.h"

namespace yx {

namespace {

constexpr __int64 kMaxLengthBytes = std::numeric_limits<__int64>::max();

/// Keeps the file, so that the range stays locked when the stream has gone.
class CMemoryRangeLock : public CBase, public virtual IStreamLock {
public:
    CMemoryRangeLock(std::shared_ptr<detail::MemoryFile> file, detail::RangeLocks::Owner owner,
                     __int64 begin, __int64 end)
        : m_file(std::move(file)), m_owner(owner), m_begin(begin), m_end(end) {}
    CMemoryRangeLock(CMemoryRangeLock const&) = delete;
    CMemoryRangeLock& operator=(CMemoryRangeLock const&) = delete;
    ~CMemoryRangeLock() override { m_file->unlock(m_owner, m_begin, m_end); }

private:
    std::shared_ptr<detail::MemoryFile> m_file;
    detail::RangeLocks::Owner m_owner;
    __int64 m_begin;
    __int64 m_end;
};

} // namespace

CMemoryFileStream::CMemoryFileStream(std::shared_ptr<detail::MemoryFile> file, CURI const& uri,
                                     Access access)
    : m_file(std::move(file)), m_uri(uri), m_access(access), m_lockOwner(m_file->makeLockOwner()) {}

__int64 CMemoryFileStream::getLength() const {
    return getFile().getLength();
}

__int64 CMemoryFileStream::getPosition() const {
    getFile();
    return m_position;
}

CURI CMemoryFileStream::getURI() {
    return m_uri;
}

void CMemoryFileStream::seek(__int64 position) {
    getFile();
    if (position < 0)
        detail::throwBadPosition(m_uri, position);
    m_position = position;
}

P<IStreamLock> CMemoryFileStream::lockRange(__int64 position, __int64 length, LockType type) {
    detail::MemoryFile& file = getFile();
    if (position < 0)
        detail::throwBadPosition(m_uri, position);
    if (length < 1 || length > kMaxLengthBytes - position)
        detail::throwBadLength(m_uri, length);
    bool const exclusive = type == Exclusive;
    if (exclusive && m_access != ReadWrite)
        detail::throwReadOnly(m_uri);
    if (!file.tryLock(m_lockOwner, position, position + length, exclusive))
        detail::throwRangeLocked(m_uri, position, length);
    return makeObject<CMemoryRangeLock>(m_file, m_lockOwner, position, position + length);
}

void CMemoryFileStream::close() {
    m_file.reset();
}

void CMemoryFileStream::read(void* target, int sizeBytes) {
    detail::MemoryFile const& file = getFile();
    if (sizeBytes < 0)
        detail::throwBadSize("CMemoryFileStream::read", sizeBytes);
    if (file.read(m_position, target, sizeBytes) < sizeBytes)
        detail::throwUnexpectedEnd(m_uri, m_position, sizeBytes);
    m_position += sizeBytes;
}

int CMemoryFileStream::readLax(void* target, int sizeBytes) {
    detail::MemoryFile const& file = getFile();
    if (sizeBytes < 0)
        detail::throwBadSize("CMemoryFileStream::readLax", sizeBytes);
    int const count = file.read(m_position, target, sizeBytes);
    m_position += count;
    return count;
}

int CMemoryFileStream::readAvailable(void* target, int sizeBytes) {
    return readLax(target, sizeBytes);
}

bool CMemoryFileStream::waitReadable(int) const {
    return !isEndOfStream();
}

bool CMemoryFileStream::isEndOfStream() const {
    return m_position >= getFile().getLength();
}

int CMemoryFileStream::isEndOfStream_NonBlocking() const {
    return isEndOfStream() ? 1 : 0;
}

void CMemoryFileStream::write(void const* source, int sizeBytes, IWriteBarrier*) {
    getWritableFile();
    if (sizeBytes < 0)
        detail::throwBadSize("CMemoryFileStream::write", sizeBytes);
    if (sizeBytes == 0)
        return;
    Piece const piece{source, sizeBytes};
    writePieces(m_position, &piece, 1);
    m_position += sizeBytes;
}

void CMemoryFileStream::writeKeepBuffer(TConstBufferSlice<unsigned char> const& slice,
                                        IWriteBarrier* barrier) {
    write(slice.getData(), slice.getLength(), barrier);
}

P<IWriteBarrier> CMemoryFileStream::createWriteBarrier(IWriteBarrier*) {
    getFile();
    return makeObject<CDummyWriteBarrier>();
}

void CMemoryFileStream::flush() {
    getFile();
}

void CMemoryFileStream::setLength(__int64 length) {
    detail::MemoryFile& file = getWritableFile();
    if (length < 0)
        detail::throwBadLength(m_uri, length);
    file.setLength(length);
}

void CMemoryFileStream::writePieces(__int64 position, Piece const* pieces, int count) {
    detail::MemoryFile& file = getWritableFile();
    if (position < 0)
        detail::throwBadPosition(m_uri, position);
    __int64 sizeBytes = 0;
    for (int i = 0; i < count; ++i)
        sizeBytes += pieces[i].sizeBytes;
    if (position > kMaxLengthBytes - sizeBytes)
        detail::throwTooLong(m_uri, position, sizeBytes);
    try {
        __int64 next = position;
        for (int i = 0; i < count; ++i) {
            file.write(next, pieces[i].data, pieces[i].sizeBytes);
            next += pieces[i].sizeBytes;
        }
    } catch (std::bad_alloc const&) {
        throw detail::makeFileError(detail::FileAction::Write, ENOSPC,
                                    detail::makeUriProps(m_uri)
                                        .add("position", toString(position))
                                        .add("bytesToWrite", toString(sizeBytes)));
    }
}

detail::MemoryFile& CMemoryFileStream::getFile() const {
    if (!m_file)
        detail::throwStreamClosed(m_uri);
    return *m_file;
}

detail::MemoryFile& CMemoryFileStream::getWritableFile() const {
    detail::MemoryFile& file = getFile();
    if (m_access != ReadWrite)
        detail::throwReadOnly(m_uri);
    return file;
}

} // namespace yx

#include "yx/internal/file_stream.h"

#include <cassert>
#include <limits>
#include <string>

#include "yx/internal/file_error.h"
#include "yx/internal/stream_error.h"

namespace yx {

namespace {

constexpr __int64 kMaxLengthBytes = std::numeric_limits<__int64>::max();

} // namespace

CFileStream::CFileStream(char const* className, CURI const& uri, Access access)
    : m_className(className), m_uri(uri), m_access(access) {}

__int64 CFileStream::getPosition() const {
    requireOpen();
    return m_position;
}

CURI CFileStream::getURI() {
    return m_uri;
}

void CFileStream::seek(__int64 position) {
    requireOpen();
    if (position < 0)
        detail::throwBadPosition(m_uri, position);
    m_position = position;
}

P<IStreamLock> CFileStream::lockRange(__int64 position, __int64 length, LockType type) {
    requireOpen();
    if (position < 0)
        detail::throwBadPosition(m_uri, position);
    if (length < 1 || length > kMaxLengthBytes - position)
        detail::throwBadLength(m_uri, length);
    bool const exclusive = type == Exclusive;
    if (exclusive && !isWritable())
        detail::throwReadOnly(m_uri);
    return lockAt(position, length, exclusive);
}

void CFileStream::read(void* target, int sizeBytes) {
    if (readChecked("read", target, sizeBytes) < sizeBytes)
        detail::throwUnexpectedEnd(m_uri, m_position, sizeBytes);
    m_position += sizeBytes;
}

int CFileStream::readLax(void* target, int sizeBytes) {
    int const count = readChecked("readLax", target, sizeBytes);
    m_position += count;
    return count;
}

int CFileStream::readAvailable(void* target, int sizeBytes) {
    return readLax(target, sizeBytes);
}

bool CFileStream::waitReadable(int) const {
    return !isEndOfStream();
}

bool CFileStream::isEndOfStream() const {
    return m_position >= getLength();
}

int CFileStream::isEndOfStream_NonBlocking() const {
    return isEndOfStream() ? 1 : 0;
}

void CFileStream::write(void const* source, int sizeBytes, IWriteBarrier*) {
    requireWritable();
    requireSize("write", sizeBytes);
    if (sizeBytes == 0)
        return;
    Piece const piece{source, sizeBytes};
    writePieces(m_position, &piece, 1);
    m_position += sizeBytes;
}

void CFileStream::writeKeepBuffer(TConstBufferSlice<unsigned char> const& slice,
                                  IWriteBarrier* barrier) {
    write(slice.getData(), slice.getLength(), barrier);
}

P<IWriteBarrier> CFileStream::createWriteBarrier(IWriteBarrier*) {
    requireOpen();
    return makeObject<CDummyWriteBarrier>();
}

void CFileStream::writePieces(__int64 position, Piece const* pieces, int count) {
    requireWritable();
    if (position < 0)
        detail::throwBadPosition(m_uri, position);
    __int64 sizeBytes = 0;
    for (int i = 0; i < count; ++i)
        sizeBytes += pieces[i].sizeBytes;
    if (position > kMaxLengthBytes - sizeBytes)
        detail::throwTooLong(m_uri, position, sizeBytes);
    assert(count > 0 && sizeBytes > 0);
    writeAt(position, pieces, count, sizeBytes);
}

void CFileStream::requireOpen() const {
    if (!isOpen())
        detail::throwStreamClosed(m_uri);
}

void CFileStream::requireWritable() const {
    requireOpen();
    if (!isWritable())
        detail::throwReadOnly(m_uri);
}

int CFileStream::readChecked(char const* operation, void* target, int sizeBytes) const {
    requireOpen();
    requireSize(operation, sizeBytes);
    assert(m_position >= 0);
    return readAt(m_position, target, sizeBytes);
}

void CFileStream::requireSize(char const* operation, int sizeBytes) const {
    if (sizeBytes < 0)
        detail::throwBadSize((std::string(m_className) + "::" + operation).c_str(), sizeBytes);
}

} // namespace yx

#include "yx/buffer_stream.h"

#include <algorithm>
#include <cassert>
#include <cstring>
#include <functional>
#include <limits>

#include "yx/internal/stream_error.h"
#include "yx/memory.h"

namespace yx {

namespace {

constexpr __int64 kMaxBufferSizeBytes = std::numeric_limits<int>::max();

} // namespace

CBufferStream::CBufferStream(TBuffer<unsigned char>* buffer, double growthFactor)
    : m_buffer(buffer), m_growthFactor(growthFactor) {}

__int64 CBufferStream::getLength() const {
    requireOpen();
    return m_buffer->getUsed();
}

__int64 CBufferStream::getPosition() const {
    requireOpen();
    return m_position;
}

CURI CBufferStream::getURI() {
    return {};
}

void CBufferStream::seek(__int64 position) {
    requireOpen();
    if (position < 0)
        detail::throwBadPosition({}, position);
    m_position = position;
}

P<IStreamLock> CBufferStream::lockRange(__int64, __int64, LockType) {
    requireOpen();
    detail::throwLockingNotSupported({});
}

void CBufferStream::close() {
    m_closed = true;
}

void CBufferStream::read(void* target, int sizeBytes) {
    requireOpen();
    requireSize("CBufferStream::read", sizeBytes);
    if (sizeBytes > getAvailable())
        detail::throwUnexpectedEnd({}, m_position, sizeBytes);
    readLax(target, sizeBytes);
}

int CBufferStream::readLax(void* target, int sizeBytes) {
    requireOpen();
    requireSize("CBufferStream::readLax", sizeBytes);
    int const count = std::min(sizeBytes, getAvailable());
    if (count == 0)
        return 0;
    copyMemory(target, m_buffer->getData() + m_position, static_cast<std::size_t>(count));
    m_position += count;
    return count;
}

int CBufferStream::readAvailable(void* target, int sizeBytes) {
    return readLax(target, sizeBytes);
}

bool CBufferStream::waitReadable(int) const {
    requireOpen();
    return getAvailable() > 0;
}

bool CBufferStream::isEndOfStream() const {
    requireOpen();
    return getAvailable() == 0;
}

int CBufferStream::isEndOfStream_NonBlocking() const {
    return isEndOfStream() ? 1 : 0;
}

void CBufferStream::write(void const* source, int sizeBytes, IWriteBarrier*) {
    requireOpen();
    requireSize("CBufferStream::write", sizeBytes);
    if (sizeBytes == 0)
        return;
    if (m_position > kMaxBufferSizeBytes - sizeBytes)
        detail::throwTooLong({}, m_position, sizeBytes);

    // The bytes may come from the buffer itself, which moves when it grows.
    auto const* bytes = static_cast<unsigned char const*>(source);
    unsigned char const* const oldData = m_buffer->getData();
    bool const isInside = oldData && std::less_equal<>()(oldData, bytes) &&
                          std::less<>()(bytes, oldData + m_buffer->getAllocated());
    std::ptrdiff_t const offset = isInside ? bytes - oldData : 0;

    int const begin = static_cast<int>(m_position);
    int const end = begin + sizeBytes;
    if (end > m_buffer->getUsed())
        growTo(end, begin);
    std::memmove(m_buffer->getData() + begin, isInside ? m_buffer->getData() + offset : bytes,
                 static_cast<std::size_t>(sizeBytes));
    m_position = end;
}

void CBufferStream::writeKeepBuffer(TConstBufferSlice<unsigned char> const& slice,
                                    IWriteBarrier* barrier) {
    write(slice.getData(), slice.getLength(), barrier);
}

P<IWriteBarrier> CBufferStream::createWriteBarrier(IWriteBarrier*) {
    requireOpen();
    return makeObject<CDummyWriteBarrier>();
}

void CBufferStream::flush() {
    requireOpen();
}

void CBufferStream::setLength(__int64 length) {
    requireOpen();
    if (length < 0)
        detail::throwBadLength({}, length);
    if (length > kMaxBufferSizeBytes)
        detail::throwTooLong({}, 0, length);
    int const used = static_cast<int>(length);
    if (used > m_buffer->getUsed())
        growTo(used, used);
    else
        m_buffer->setUsed(used);
}

int CBufferStream::getAvailable() const {
    assert(m_position >= 0);
    return m_position < m_buffer->getUsed() ? m_buffer->getUsed() - static_cast<int>(m_position)
                                            : 0;
}

void CBufferStream::growTo(int used, int zeroedUpTo) {
    int const oldUsed = m_buffer->getUsed();
    assert(used >= oldUsed && zeroedUpTo <= used);
    if (used > m_buffer->getAllocated()) {
        double const grown =
            std::min(m_growthFactor * m_buffer->getAllocated(), double{kMaxBufferSizeBytes});
        // A factor that is no number compares as false, too.
        m_buffer->ensureAllocated(grown > used ? static_cast<int>(grown) : used);
    }
    m_buffer->setUsed(used);
    if (zeroedUpTo > oldUsed) {
        initMemory(m_buffer->getData() + oldUsed, 0,
                   static_cast<std::size_t>(zeroedUpTo - oldUsed));
    }
}

void CBufferStream::requireOpen() const {
    if (m_closed)
        detail::throwStreamClosed({});
}

void CBufferStream::requireSize(char const* function, int sizeBytes) {
    if (sizeBytes < 0)
        detail::throwBadSize(function, sizeBytes);
}

} // namespace yx

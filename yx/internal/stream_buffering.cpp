#include "yx/internal/stream_buffering.h"

#include <algorithm>
#include <cassert>
#include <limits>
#include <utility>

#include "yx/access_stream.h"
#include "yx/internal/file_error.h"
#include "yx/internal/native_file_stream.h"
#include "yx/internal/stream_error.h"
#include "yx/memory.h"

namespace yx::detail {

namespace {

/// Positions from here on hold nothing: the sum of a position and a size must not overflow.
constexpr __int64 kMaxStreamLengthBytes = std::numeric_limits<__int64>::max() / 2;

IIOStream::Access getAccessOf(IInStream* in, IIOStream* out) {
    if (auto const* const file = asNativeFileStream(in))
        return file->getAccess();
    auto const* const stream = dynamic_cast<IAccessStream const*>(out);
    return stream ? stream->getAccess() : IIOStream::ReadWrite;
}

} // namespace

StreamBuffering::StreamBuffering(IInStream* in, IIOStream* out, int firstFetchBytes)
    : m_access(getAccessOf(in, out)), m_stream(in, out, m_access), m_windows(firstFetchBytes) {
    if (auto const* const file = asNativeFileStream(in))
        m_openingLength = file->getOpeningLength();
}

__int64 StreamBuffering::getLength() const {
    requireOpen();
    // Once alone: who asks again may expect that the file has grown.
    if (std::optional<__int64> const length = std::exchange(m_openingLength, std::nullopt))
        return *length;
    return std::max(m_stream.getLength(), m_pending.getEnd());
}

P<IStreamLock> StreamBuffering::lockRange(__int64 position, __int64 length,
                                          IStreamBase::LockType type) {
    requireOpen();
    P<IStreamLock> lock = m_stream.get().lockRange(position, length, type);
    // Another holder may have written while this one waited for its turn.
    m_openingLength.reset();
    leaveWindow(getPosition());
    m_windows.clear();
    return lock;
}

void StreamBuffering::close() {
    if (m_isClosed)
        return;
    writeBack();
    m_stream.close();
    assert(m_pending.isEmpty());
    leaveWindow(getPosition());
    m_windows.clear();
    m_isClosed = true;
}

int StreamBuffering::readAvailable(void* target, int sizeBytes) {
    requireOpen();
    if (sizeBytes < 0)
        throwBadSize("COptimizingInStream::readAvailable", sizeBytes);
    // What is in memory comes first; it is there without waiting.
    if (hasInWindow())
        return readLax(target, std::min(sizeBytes, static_cast<int>(m_cursorEnd - m_cursor)));
    if (!m_pending.isEmpty() || m_stream.isAligned())
        return readLax(target, sizeBytes);
    __int64 const position = getPosition();
    m_stream.get().seek(position);
    int const count = m_stream.get().readAvailable(target, sizeBytes);
    enterWindow(position + count);
    return count;
}

bool StreamBuffering::waitReadable(int timeLimit) const {
    requireOpen();
    if (hasInWindow() || getPosition() < m_pending.getEnd())
        return true;
    return m_stream.waitReadable(getPosition(), timeLimit);
}

bool StreamBuffering::isEndOfStream() const {
    return !hasInWindow() && getPosition() >= getLength();
}

int StreamBuffering::getBestPerformancePositionAlign() const {
    return m_stream.getBestPerformancePositionAlign();
}

void StreamBuffering::write(void const* source, int sizeBytes, IWriteBarrier* barrier) {
    requireWritable(sizeBytes);
    if (sizeBytes == 0)
        return;
    auto const* bytes = static_cast<unsigned char const*>(source);
    if (barrier || sizeBytes >= kPassThroughBytes)
        writeThrough(bytes, sizeBytes, barrier);
    else
        gather(bytes, sizeBytes);
}

void StreamBuffering::writeKeepBuffer(unsigned char const* source, int sizeBytes,
                                      IWriteBarrier* barrier) {
    requireWritable(sizeBytes);
    if (sizeBytes == 0)
        return;
    if (barrier || sizeBytes >= kKeepBufferBytes)
        writeThrough(source, sizeBytes, barrier);
    else
        gather(source, sizeBytes);
}

P<IWriteBarrier> StreamBuffering::createWriteBarrier(IWriteBarrier* previous) {
    requireOpen();
    writeBack();
    return m_stream.createWriteBarrier(previous);
}

void StreamBuffering::flush() {
    requireOpen();
    writeBack();
    m_stream.flush();
}

void StreamBuffering::setLength(__int64 length) {
    requireOpen();
    if (length < 0)
        throwBadLength(getURI(), length);
    if (length > kMaxStreamLengthBytes)
        throwTooLong(getURI(), 0, length);
    // The windows go first: after a failure nobody knows what is there.
    __int64 const position = getPosition();
    leaveWindow(position);
    m_windows.drop(length, kMaxStreamLengthBytes);
    enterWindow(position);
    m_stream.setLength(length);
    m_pending.cut(length);
}

void StreamBuffering::throwClosed() const {
    throwStreamClosed(getURI());
}

void StreamBuffering::seekOutsideWindow(__int64 position) {
    requireOpen();
    if (position < 0)
        throwBadPosition(getURI(), position);
    leaveWindow(position);
}

void StreamBuffering::leaveWindow(__int64 position) {
    assert(position >= 0);
    m_cursor = m_cursorEnd = m_windowBegin = &kNoWindow;
    m_cursorEndPosition = position;
}

void StreamBuffering::enterWindow(__int64 position) {
    ReadWindow const* const window = m_windows.find(position);
    if (!window) {
        leaveWindow(position);
        return;
    }
    m_windowBegin = window->getData();
    m_cursor = m_windowBegin + (position - window->getPosition());
    m_cursorEnd = m_windowBegin + window->getSizeBytes();
    m_cursorEndPosition = window->getEnd();
    assert(getPosition() == position && m_windowBegin <= m_cursor && m_cursor < m_cursorEnd);
}

void StreamBuffering::readExactly(void* target, int sizeBytes) {
    requireOpen();
    if (sizeBytes < 0)
        throwBadSize("COptimizingInStream::read", sizeBytes);
    __int64 const position = getPosition();
    leaveWindow(position);
    int const count = readAt(position, static_cast<unsigned char*>(target), sizeBytes);
    if (count < sizeBytes)
        throwUnexpectedEnd(getURI(), position, sizeBytes);
    enterWindow(position + count);
}

int StreamBuffering::readUpTo(void* target, int sizeBytes) {
    requireOpen();
    if (sizeBytes < 0)
        throwBadSize("COptimizingInStream::readLax", sizeBytes);
    __int64 const position = getPosition();
    leaveWindow(position);
    int const count = readAt(position, static_cast<unsigned char*>(target), sizeBytes);
    enterWindow(position + count);
    return count;
}

int StreamBuffering::readAt(__int64 position, unsigned char* target, int sizeBytes) {
    if (position >= kMaxStreamLengthBytes)
        return 0;
    if (sizeBytes >= kPassThroughBytes)
        return readContent(position, target, sizeBytes);
    int done = 0;
    while (done < sizeBytes) {
        int const count = readPieceAt(position + done, target + done, sizeBytes - done);
        if (count == 0)
            break;
        done += count;
    }
    return done;
}

int StreamBuffering::readPieceAt(__int64 position, unsigned char* target, int sizeBytes) {
    ReadWindow* window = m_windows.find(position);
    if (!window) {
        window = &m_windows.prepare(position);
        int const fetchSizeBytes = window->getFetchSizeBytes();
        if (sizeBytes >= fetchSizeBytes) {
            int const count = readContent(position, target, sizeBytes);
            window->noteReadTo(position + count);
            return count;
        }
        int const count = readContent(position, window->reserve(), fetchSizeBytes);
        window->fill(position, count);
    }
    auto const count = static_cast<int>(std::min<__int64>(sizeBytes, window->getEnd() - position));
    copyMemory(target, window->getData() + (position - window->getPosition()),
               static_cast<std::size_t>(count));
    return count;
}

int StreamBuffering::readContent(__int64 position, unsigned char* target, int sizeBytes) {
    int count = m_stream.read(position, target, sizeBytes);
    if (m_pending.isEmpty())
        return count;

    // Between the stream's end and bytes held back behind it there are zeros.
    __int64 const available = std::clamp<__int64>(m_pending.getEnd() - position, count, sizeBytes);
    initMemory(target + count, 0, static_cast<std::size_t>(available - count));
    count = static_cast<int>(available);
    m_pending.overlay(position, target, count);
    return count;
}

void StreamBuffering::requireWritable(int sizeBytes) const {
    requireOpen();
    // Bytes that are held back for a stream that refuses them could never be written.
    if (m_access == IIOStream::ReadOnly)
        throwReadOnly(getURI());
    if (sizeBytes < 0)
        throwBadSize("COptimizingIOStream::write", sizeBytes);
    if (getPosition() > kMaxStreamLengthBytes - sizeBytes)
        throwTooLong(getURI(), getPosition(), sizeBytes);
}

void StreamBuffering::gather(unsigned char const* source, int sizeBytes) {
    __int64 const position = getPosition();
    if (!m_pending.tryAdd(position, source, sizeBytes)) {
        writeBack();
        [[maybe_unused]] bool const isAdded = m_pending.tryAdd(position, source, sizeBytes);
        assert(isAdded && "nothing is in the way any more");
    }
    m_windows.patch(position, source, sizeBytes);
    seek(position + sizeBytes);
}

void StreamBuffering::writeThrough(unsigned char const* source, int sizeBytes,
                                   IWriteBarrier* barrier) {
    __int64 const position = getPosition();
    auto const* const before = barrier ? nullptr : m_pending.getSoleEndingAt(position);
    if (!before)
        writeBack();

    // Before the write: after a failure nobody knows what is there.
    leaveWindow(position);
    m_windows.drop(position, sizeBytes);
    if (before) {
        IGatherOutStream::Piece const pieces[] = {{before->bytes.data(), before->getSizeBytes()},
                                                  {source, sizeBytes}};
        m_stream.write(before->position, pieces, 2);
        m_pending.clear();
    } else {
        m_stream.write(position, source, sizeBytes, barrier);
    }
    enterWindow(position + sizeBytes);
}

void StreamBuffering::writeBack() {
    if (!m_pending.isEmpty())
        m_pending.writeBack(m_stream);
}

} // namespace yx::detail

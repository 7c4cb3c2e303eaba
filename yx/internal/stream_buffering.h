#pragma once

#include <cstring>
#include <optional>

#include "yx/internal/pending_writes.h"
#include "yx/internal/positioned_stream.h"
#include "yx/internal/read_windows.h"

namespace yx::detail {

/// The engine of `COptimizingInStream` and `COptimizingIOStream`: one position over read windows,
/// writes that are held back, and the stream under them. Internal.
///
/// What a window holds is always the content as its user sees it, with all writes in it, so a read
/// that a window serves needs to look at nothing else.
class StreamBuffering {
public:
    /// Transfers of this size and more pass through.
    static constexpr int kPassThroughBytes = 64 * 1024;

    /// From this size on, bytes that the caller keeps unchanged go to the stream without a copy.
    /// Below it, a copy costs less than a call of the operating system.
    static constexpr int kKeepBufferBytes = 16 * 1024;

    /// `out` is null for a stream that is only read; otherwise it is the same object as `in`.
    /// `firstFetchBytes` is as for `ReadWindows`.
    StreamBuffering(IInStream* in, IIOStream* out,
                    int firstFetchBytes = ReadWindows::kFirstFetchBytes);

    /// Also of a closed stream.
    __int64 getPosition() const { return m_cursorEndPosition - (m_cursorEnd - m_cursor); }
    __int64 getOpenPosition() const {
        requireOpen();
        return getPosition();
    }

    __int64 getLength() const;
    CURI getURI() const { return m_stream.get().getURI(); }
    P<IStreamLock> lockRange(__int64 position, __int64 length, IStreamBase::LockType type);
    void close();

    void seek(__int64 position) {
        // Wraps to a huge number for a position behind the window's end.
        auto const backBytes = static_cast<unsigned long long>(m_cursorEndPosition) -
                               static_cast<unsigned long long>(position);
        if (backBytes - 1 < static_cast<unsigned long long>(m_cursorEnd - m_windowBegin))
            m_cursor = m_cursorEnd - backBytes;
        else
            seekOutsideWindow(position);
    }

    void read(void* target, int sizeBytes) {
        if (!readFromWindow(target, sizeBytes))
            readExactly(target, sizeBytes);
    }

    int readLax(void* target, int sizeBytes) {
        return readFromWindow(target, sizeBytes) ? sizeBytes : readUpTo(target, sizeBytes);
    }

    int readAvailable(void* target, int sizeBytes);
    bool waitReadable(int timeLimit) const;
    bool isEndOfStream() const;
    int getBestPerformancePositionAlign() const;
    IIOStream::Access getAccess() const { return m_access; }

    // From here on only with an `out`.

    void write(void const* source, int sizeBytes, IWriteBarrier* barrier);
    void writeKeepBuffer(unsigned char const* source, int sizeBytes, IWriteBarrier* barrier);
    P<IWriteBarrier> createWriteBarrier(IWriteBarrier* previous);
    void flush();
    void setLength(__int64 length);

    /// Writes what is held back, if there is something; a failure keeps it.
    void writeBack();

private:
    bool hasInWindow() const { return m_cursor != m_cursorEnd; }

    /// The hot path. Zero and negative sizes and closed streams fail its one test.
    bool readFromWindow(void* target, int sizeBytes) {
        if (static_cast<unsigned long long>(sizeBytes) - 1 >=
            static_cast<unsigned long long>(m_cursorEnd - m_cursor)) {
            return false;
        }
        // With the size as a constant, the copy of a number is one load and one store.
        if (sizeBytes == 4)
            std::memcpy(target, m_cursor, 4);
        else
            std::memcpy(target, m_cursor, static_cast<std::size_t>(sizeBytes));
        m_cursor += sizeBytes;
        return true;
    }

    void requireOpen() const {
        if (m_isClosed)
            throwClosed();
    }

    [[noreturn]] void throwClosed() const;
    void seekOutsideWindow(__int64 position);

    /// Both set the position: with the cursor in no window, or in the one that holds it, if any.
    void leaveWindow(__int64 position);
    void enterWindow(__int64 position);

    /// `read` and `readLax` of what the cursor's window does not hold as a whole.
    void readExactly(void* target, int sizeBytes);
    int readUpTo(void* target, int sizeBytes);

    /// Through windows, or past them for large sizes; fewer only at the end.
    int readAt(__int64 position, unsigned char* target, int sizeBytes);

    /// What one window has, fetched first if need be; 0 only at the end.
    int readPieceAt(__int64 position, unsigned char* target, int sizeBytes);

    /// The stream's own bytes with those that are held back over them.
    int readContent(__int64 position, unsigned char* target, int sizeBytes);

    void requireWritable(int sizeBytes) const;

    /// Holds the bytes back, or passes them on behind all that is held back.
    void gather(unsigned char const* source, int sizeBytes);
    void writeThrough(unsigned char const* source, int sizeBytes, IWriteBarrier* barrier);

    // The cursor runs through the window that holds the position; all three pointers are equal if
    // none does.
    unsigned char const* m_cursor = &kNoWindow;
    unsigned char const* m_cursorEnd = &kNoWindow;
    unsigned char const* m_windowBegin = &kNoWindow;
    __int64 m_cursorEndPosition = 0;

    /// What the stream under it was opened for; `ReadWrite` where it does not implement
    /// `IAccessStream`.
    IIOStream::Access m_access;

    PositionedStream m_stream;
    bool m_isClosed = false;

    /// Until the length is asked for.
    mutable std::optional<__int64> m_openingLength;
    ReadWindows m_windows;
    PendingWrites m_pending;

    static constexpr unsigned char kNoWindow = 0;
};

} // namespace yx::detail

#pragma once

#include "yx/stream.h"

namespace yx {

/// A stream over a buffer that it does not own and that must outlive it. The stream's length is the
/// buffer's used size. Its URI is empty.
class YX_API CBufferStream : public CBase, public virtual IIOStream {
public:
    /// When a write needs more room, the allocation grows to `growthFactor` times what it was, or
    /// to what is needed if that is more. A factor of 1 or below grows to what is needed.
    CBufferStream(TBuffer<unsigned char>* buffer, double growthFactor);

    __int64 getLength() const override;
    __int64 getPosition() const override;
    CURI getURI() override;
    void seek(__int64 position) override;
    /// Always `CIOError` `NotSupported`.
    P<IStreamLock> lockRange(__int64 position, __int64 length, LockType type) override;

    void close() override;

    void read(void* target, int sizeBytes) override;
    int readLax(void* target, int sizeBytes) override;
    int readAvailable(void* target, int sizeBytes) override;
    bool waitReadable(int timeLimit) const override;
    bool isEndOfStream() const override;
    int isEndOfStream_NonBlocking() const override;

    /// A write past the end fills the gap with zeros. `source` may lie in the buffer itself. A
    /// length that no buffer can hold is `CIOError` `NoSpace` with "uri", "position" and
    /// "bytesToWrite".
    void write(void const* source, int sizeBytes, IWriteBarrier* barrier) override;
    void writeKeepBuffer(TConstBufferSlice<unsigned char> const& slice,
                         IWriteBarrier* barrier) override;

    P<IWriteBarrier> createWriteBarrier(IWriteBarrier* previous) override;
    void flush() override;
    void setLength(__int64 length) override;

private:
    /// The bytes between the position and the end.
    int getAvailable() const;

    /// Makes `used` the used size, and bytes from the old end up to `zeroedUpTo` zero.
    void growTo(int used, int zeroedUpTo);

    void requireOpen() const;
    static void requireSize(char const* function, int sizeBytes);

    TBuffer<unsigned char>* m_buffer;
    double m_growthFactor;
    __int64 m_position = 0;
    bool m_closed = false;
};

} // namespace yx

#pragma once

#include "yx/stream.h"

namespace yx {

/// Writes little-endian values to a stream; itself a stream that forwards every operation.
class YX_API CDataOutStream : public CBase, public virtual IOutStream {
public:
    /// Holds a reference to `stream`, which must not be null.
    explicit CDataOutStream(IOutStream* stream);

    /// The least significant byte goes first. Each returns this object, so that calls chain.
    CDataOutStream& writeUInt8(unsigned char value);
    CDataOutStream& writeUInt16(unsigned short value);
    CDataOutStream& writeUInt32(unsigned int value);
    CDataOutStream& writeUInt64(unsigned long long value);
    CDataOutStream& writeInt64(__int64 value);

    __int64 getLength() const override;
    __int64 getPosition() const override;
    CURI getURI() override;
    void seek(__int64 position) override;
    P<IStreamLock> lockRange(__int64 position, __int64 length, LockType type) override;
    void close() override;

    void write(void const* source, int sizeBytes, IWriteBarrier* barrier) override;
    void writeKeepBuffer(TConstBufferSlice<unsigned char> const& slice,
                         IWriteBarrier* barrier) override;
    P<IWriteBarrier> createWriteBarrier(IWriteBarrier* previous) override;
    void flush() override;
    void setLength(__int64 length) override;

private:
    P<IOutStream> m_stream;
};

} // namespace yx

#pragma once

#include "yx/stream.h"

namespace yx {

/// Reads little-endian values from a stream; itself a stream that forwards every operation.
class YX_API CDataInStream : public CBase, public virtual IInStream {
public:
    /// Holds a reference to `stream`, which must not be null.
    explicit CDataInStream(IInStream* stream);

    /// The least significant byte comes first. Errors are those of `read`.
    unsigned char readUInt8();
    unsigned short readUInt16();
    unsigned int readUInt32();
    unsigned long long readUInt64();

    __int64 getLength() const override;
    __int64 getPosition() const override;
    CURI getURI() override;
    void seek(__int64 position) override;
    P<IStreamLock> lockRange(__int64 position, __int64 length, LockType type) override;
    void close() override;

    void read(void* target, int sizeBytes) override;
    int readLax(void* target, int sizeBytes) override;
    int readAvailable(void* target, int sizeBytes) override;
    bool waitReadable(int timeLimit) const override;
    bool isEndOfStream() const override;
    int isEndOfStream_NonBlocking() const override;

private:
    P<IInStream> m_stream;
};

} // namespace yx

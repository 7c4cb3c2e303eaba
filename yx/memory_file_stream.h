#pragma once

#include <memory>

#include "yx/gather_out_stream.h"
#include "yx/memory_file.h"
#include "yx/stream.h"

namespace yx {

/// A stream on a file of `CMemoryFileSystem`. Internal. The file lives on while it is open here,
/// also after it was deleted or replaced.
class CMemoryFileStream : public CBase, public virtual IIOStream, public virtual IGatherOutStream {
public:
    CMemoryFileStream(std::shared_ptr<detail::MemoryFile> file, CURI const& uri, Access access);

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

    void write(void const* source, int sizeBytes, IWriteBarrier* barrier) override;
    void writeKeepBuffer(TConstBufferSlice<unsigned char> const& slice,
                         IWriteBarrier* barrier) override;
    P<IWriteBarrier> createWriteBarrier(IWriteBarrier* previous) override;
    void flush() override;
    void setLength(__int64 length) override;

    void writePieces(__int64 position, Piece const* pieces, int count) override;

private:
    detail::MemoryFile& getFile() const;
    detail::MemoryFile& getWritableFile() const;

    /// Null once closed.
    std::shared_ptr<detail::MemoryFile> m_file;
    CURI m_uri;
    Access m_access;
    detail::RangeLocks::Owner m_lockOwner;
    __int64 m_position = 0;
};

} // namespace yx

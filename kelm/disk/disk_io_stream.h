#pragma once

#include "kelm/disk/disk.h"
#include "yx/stream.h"

namespace kelm {

/// Serves a whole disk where a stream is expected. It has no cursor and no buffer of its own: it
/// moves the disk's cursor. It refuses what a disk cannot do: changing the length, and locking a
/// range. On a closed stream every operation but `getURI`, `close` and `lockRange` is
/// `yx::CIOError` `Closed` with an empty message.
class KELM_API CVMDKDiskIOStream : public yx::CBase, public virtual yx::IIOStream {
public:
    /// Wraps a disk that is open, and shares its ownership.
    explicit CVMDKDiskIOStream(CVMDKDisk* disk);

    /// Opens a disk with the default compression level and a grain table cache of its own.
    CVMDKDiskIOStream(yx::IFileSystem* fileSystem, yx::CURI const& uri,
                      yx::IIOStream::Access access, yx::String const& password);

    /// The disk's size.
    __int64 getLength() const override;

    /// The disk's cursor.
    __int64 getPosition() const override;

    /// The disk's main file; also after `close`.
    yx::CURI getURI() override { return m_uri; }

    /// Unlike that of a file, the position must not lie behind the end; see `CVMDKDisk::seek`.
    void seek(__int64 position) override;

    /// Always `yx::CFileSystemError` `LockingNotSupported`.
    yx::P<yx::IStreamLock> lockRange(__int64 position, __int64 length, LockType type) override;

    /// Releases the disk. If this was the last reference, the disk's destructor flushes, and a
    /// failure does not come out here; call `flush` first.
    void close() override;

    void read(void* target, int sizeBytes) override;
    int readLax(void* target, int sizeBytes) override;
    int readAvailable(void* target, int sizeBytes) override;
    bool waitReadable(int timeLimit) const override;
    bool isEndOfStream() const override;
    int isEndOfStream_NonBlocking() const override;

    /// Writes are in order anyway, so barriers are not used.
    void write(void const* source, int sizeBytes, yx::IWriteBarrier* barrier) override;
    void writeKeepBuffer(yx::TConstBufferSlice<unsigned char> const& slice,
                         yx::IWriteBarrier* barrier) override;

    /// Flushes, and returns a barrier that orders nothing.
    yx::P<yx::IWriteBarrier> createWriteBarrier(yx::IWriteBarrier* previous) override;
    void flush() override;

    /// Always `yx::CIOError` `NotSupported` with an empty message.
    void setLength(__int64 length) override;

protected:
    /// What both constructors end with.
    void construct(CVMDKDisk* disk);

private:
    CVMDKDisk& openDisk() const;

    yx::P<CVMDKDisk> m_disk;
    yx::CURI m_uri;
};

} // namespace kelm

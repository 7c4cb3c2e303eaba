#pragma once

#include <memory>
#include <string>

#include "yx/file_descriptor.h"
#include "yx/gather_out_stream.h"
#include "yx/native_file_system.h"
#include "yx/stream.h"

namespace yx {

/// A stream on a file of the operating system. Internal.
///
/// The position is its own: every transfer is a positioned one, so `seek` costs nothing. Nothing is
/// buffered. Failed transfers leave the position alone.
class CNativeFileStream : public CBase, public virtual IIOStream, public virtual IGatherOutStream {
public:
    /// Takes the open file over. `path` is absolute; the folder to sync is found by it.
    CNativeFileStream(std::shared_ptr<detail::FileDescriptor> descriptor, CURI const& uri,
                      std::string path, Access access, NativeFlush flush);
    CNativeFileStream(CNativeFileStream const&) = delete;
    CNativeFileStream& operator=(CNativeFileStream const&) = delete;
    ~CNativeFileStream() override;

    /// Of a block device, its size.
    __int64 getLength() const override;
    __int64 getPosition() const override;
    CURI getURI() override;
    void seek(__int64 position) override;

    /// The lock belongs to this open file: other streams conflict with it, also in this process;
    /// locks of one stream replace each other where they overlap. It holds until the token goes, or
    /// the process ends, and keeps the file open so long. A shared lock needs no write access, an
    /// exclusive one is `NotAllowed` without. A `length` below 1 is `BadPosition`.
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

    /// Syncs what was written through this stream since the last call, and once the entry of the
    /// file in its folder. A sync that fails is final for the stream: the operating system may have
    /// dropped what it could not write, so that every later call fails with the same error.
    void flush() override;
    void setLength(__int64 length) override;

    void writePieces(__int64 position, Piece const* pieces, int count) override;

private:
    int getDescriptor() const;
    int getWritableDescriptor() const;
    int readAt(__int64 position, void* target, int sizeBytes) const;

    void syncContent();
    void syncFolder();
    [[noreturn]] void throwSyncError() const;

    /// Null once closed.
    std::shared_ptr<detail::FileDescriptor> m_descriptor;
    CURI m_uri;
    std::string m_path;
    Access m_access;
    __int64 m_position = 0;

    bool m_contentNeedsSync = false;

    /// Until the first sync, since the file may be new: made by this stream, or by an earlier one
    /// that was never flushed.
    bool m_folderNeedsSync = false;

    /// The file is no file on a device, or the host syncs.
    bool m_neverSyncs;

    /// The `errno` value of the sync that failed, 0 if none has.
    int m_syncError = 0;
};

} // namespace yx

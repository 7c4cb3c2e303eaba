#pragma once

#include <memory>
#include <optional>
#include <string>

#include <sys/stat.h>

#include "yx/internal/early_write_back.h"
#include "yx/internal/file_descriptor.h"
#include "yx/internal/file_stream.h"
#include "yx/internal/native_range_locks.h"
#include "yx/native_file_system.h"
#include "yx/native_stream.h"

namespace yx {

/// A stream on a file of the operating system. Internal. Every transfer is a positioned one.
///
/// A lock belongs to the open file: other streams conflict with it, also in this process. It holds
/// until its token goes or the process ends, and keeps the file open so long.
class CNativeFileStream : public CFileStream, public virtual INativeStream {
public:
    /// Takes the open file over. `status` is what the system says of it. `path` is absolute; the
    /// folder to sync is found by it.
    CNativeFileStream(std::shared_ptr<detail::FileDescriptor> descriptor, struct stat const& status,
                      CURI const& uri, std::string path, Access access, NativeFlush flush);
    ~CNativeFileStream() override;

    /// Of a block device, its size.
    __int64 getLength() const override;
    void close() override;

    /// Syncs what was written through this stream since the last call, and once the entry of the
    /// file in its folder. A sync that fails is final for the stream: the operating system may have
    /// dropped what it could not write, so that every later call fails with the same error.
    void flush() override;
    void setLength(__int64 length) override;
    int getFileDescriptor() const override { return m_descriptor ? m_descriptor->get() : -1; }

    /// The length that the file had when it was opened. Absent if it was not opened only for
    /// reading, is no regular file, or has been used since.
    std::optional<__int64> getOpeningLength() const { return m_openingLength; }

private:
    bool isOpen() const override { return static_cast<bool>(m_descriptor); }
    int readAt(__int64 position, void* target, int sizeBytes) const override;
    void writeAt(__int64 position, Piece const* pieces, int count, __int64 sizeBytes) override;
    P<IStreamLock> lockAt(__int64 position, __int64 length, bool exclusive) override;

    void syncContent();
    void syncFolder();
    [[noreturn]] void throwSyncError() const;

    /// Null once closed.
    std::shared_ptr<detail::FileDescriptor> m_descriptor;

    /// Null until the first lock, and once closed. Tokens keep it.
    std::shared_ptr<detail::NativeRangeLocks> m_locks;
    std::string m_path;

    /// Until the file is used.
    mutable std::optional<__int64> m_openingLength;

    bool m_contentNeedsSync = false;

    detail::EarlyWriteBack m_earlyWriteBack;

    /// Until the first sync, since the file may be new: made by this stream, or by an earlier one
    /// that was never flushed.
    bool m_folderNeedsSync = false;

    /// The file is no file on a device, or the host syncs.
    bool m_neverSyncs;

    /// The `errno` value of the sync that failed, 0 if none has.
    int m_syncError = 0;
};

namespace detail {

/// The stream, which may be null, if it is on a file of the operating system; costs less than a
/// `dynamic_cast`.
CNativeFileStream* asNativeFileStream(IStreamBase* stream);

} // namespace detail

} // namespace yx

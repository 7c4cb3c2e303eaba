#pragma once

#include <optional>
#include <span>
#include <string>

#include <sys/uio.h>

#include "host/system/cancel.h"
#include "host/system/file_descriptor.h"
#include "host/system/file_lock.h"
#include "host/transfer/device_zeroing.h"
#include "host/transfer/target_zeros.h"
#include "yx/internal/early_write_back.h"

namespace kelm::host {

/// A raw image that is written from start to end: a new file, a block device, or a pipe. What
/// becomes of zeros says a `ZeroPolicy`; a pipe gets them all. A file that was made or written to
/// and is not finished is removed. Not for disks. Errors are `yx::CIOError` with the path under
/// "path".
///
/// A block device is opened alone: one that is mounted or otherwise taken is `yx::CLockFileError`
/// "The device is in use." with "path". A file is locked (`FileLock`) until this ends: one that a
/// disk has open, or that is written by another program of ours, is `CLockFileError` "The file is
/// in use." with "path".
class RawTarget {
public:
    /// "-" is standard output. A file or a block device that exists is `AlreadyExists` unless
    /// `overwrite` is given; the first write empties such a file, unless zeros are skipped. While a
    /// pipe takes nothing, `cancel` is checked several times a second, and often while zeros are
    /// written; it may be null and must outlive the target.
    RawTarget(std::string const& path, bool overwrite, CancelFlag const* cancel = nullptr,
              ZeroPolicy zeroPolicy = ZeroPolicy::Punch);
    RawTarget(RawTarget const&) = delete;
    RawTarget& operator=(RawTarget const&) = delete;
    ~RawTarget();

    /// Refuses an image that can be seen not to fit, before anything is written: one longer than
    /// the block device, or than the limit on the size of a file that the process has
    /// (RLIMIT_FSIZE). Such an image is `CIOError` `NoSpace` "The target is too small for the
    /// image." with "path", "imageSize" and "targetSize" in bytes. Whether a file system has enough
    /// free space cannot be seen in advance, since zeros take none.
    void verifyHasRoomFor(__int64 imageBytes) const;

    /// Writes the next bytes.
    void write(unsigned char const* data, int bytes);

    /// Makes the next bytes zeros, as the policy says.
    void writeZeros(__int64 bytes);

    /// What became of the zeros that `writeZeros` was called for.
    TargetZeros getZeros() const;

    /// Begins writing, and returns whether `writeAt` works: for a file or a block device, not for a
    /// pipe.
    bool beginWritingAnywhere();

    /// Writes at the given place, once `beginWritingAnywhere` has returned true. Several threads
    /// may do so at once, each at another place, also while any other function of the object runs.
    void writeAt(__int64 positionBytes, unsigned char const* data, int bytes) const;

    /// The same for parts that follow each other, at most 1,024 (IOV_MAX). `parts` are used up.
    void writeAt(__int64 positionBytes, std::span<iovec> parts) const;

    /// Whether threads that call `writeAt` at once wait for each other in the system, as they do for
    /// a file.
    bool takesOneWriteAtATime() const { return m_kind == Kind::File; }

    /// Counts as the next bytes what `writeAt` has written behind the current position.
    void passWritten(__int64 bytes);

    /// Gives the file its length and brings everything to the device.
    void finish();

private:
    enum class Kind { File, Device, Pipe };

    void open(bool overwrite);
    void lock();
    void beginWriting();
    void writeToPipe(unsigned char const* data, int bytes);
    void writeEveryZero(__int64 bytes);
    void syncFolder() const;

    std::string m_path;
    CancelFlag const* m_cancel;
    ZeroPolicy m_zeroPolicy;
    FileDescriptor m_file;
    FileLock m_lock;

    /// The file itself, which the path may be a link to.
    std::string m_realPath;

    Kind m_kind = Kind::Pipe;
    bool m_finished = false;

    /// Whether the file is one that goes if it is not finished.
    bool m_isOurs = false;

    __int64 m_positionBytes = 0;
    TargetZeros m_zeros;

    /// Only for a device.
    std::optional<DeviceZeroing> m_deviceZeroing;
    yx::detail::EarlyWriteBack m_earlyWriteBack;
};

} // namespace kelm::host

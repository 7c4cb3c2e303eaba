#pragma once

#include <string>

#include "host/system/cancel.h"
#include "host/system/file_descriptor.h"
#include "yx/internal/early_write_back.h"

namespace kelm::host {

/// A raw image written from start to end: a new file, a block device, or a pipe. Zeros become holes
/// in a file. A file that was made or emptied and is not finished is removed. Errors are
/// `yx::CIOError` with the path under "path".
class RawTarget {
public:
    /// "-" is standard output. A file or a block device that exists is `AlreadyExists` unless
    /// `overwrite` is given; the first write empties such a file. While a pipe takes nothing,
    /// `cancel` is looked at several times a second; it may be null and must outlive the target.
    RawTarget(std::string const& path, bool overwrite, CancelFlag const* cancel = nullptr);
    RawTarget(RawTarget const&) = delete;
    RawTarget& operator=(RawTarget const&) = delete;
    ~RawTarget();

    /// Writes the next bytes.
    void write(unsigned char const* data, int bytes);

    /// Writes zeros as the next bytes.
    void writeZeros(__int64 bytes);

    /// Begins writing, and tells whether `writeAt` works: in a file or a block device, not in a pipe.
    bool beginWritingAnywhere();

    /// Writes at a place of its own. Several threads may do so at once, each elsewhere, also while
    /// another object function runs.
    void writeAt(__int64 positionBytes, unsigned char const* data, int bytes) const;

    /// Counts as the next bytes what `writeAt` has written there.
    void passWritten(__int64 bytes);

    /// Gives the file its length and brings everything to the device.
    void finish();

private:
    enum class Kind { File, Device, Pipe };

    void open(bool overwrite);
    void beginWriting();
    void writeToPipe(unsigned char const* data, int bytes);
    void syncFolder() const;

    std::string m_path;
    CancelFlag const* m_cancel;
    FileDescriptor m_file;

    /// The file itself, which the path may be a link to.
    std::string m_realPath;

    Kind m_kind = Kind::Pipe;
    bool m_finished = false;

    /// Whether the file holds nothing but what was written here.
    bool m_isOurs = false;

    __int64 m_positionBytes = 0;
    yx::detail::EarlyWriteBack m_earlyWriteBack;
};

} // namespace kelm::host

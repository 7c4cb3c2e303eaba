#pragma once

#include <memory>

#include "yx/error.h"
#include "yx/file_system.h"

namespace yx {

namespace detail {
class OpenLockFile;
}

/// The whole messages where another holder is in the way, and where one is just removing the file:
/// both pass by themselves. No code of the error says so, so callers compare with these.
inline constexpr char kLockFileInUseMessage[] =
    "The disk is in use: its lock file is held by another program or another open disk.";
inline constexpr char kLockFileIsRemovedMessage[] =
    "The lock file is being removed by another program.";

/// How the message begins where nobody holds the lock but its file cannot be made, opened or
/// locked. Behind it stands the message of the cause. No code of the error says it, so callers
/// compare with this.
inline constexpr char kLockNotTakenMessagePrefix[] = "Cannot take the lock file: ";

/// Holds a lock file for as long as it lives.
///
/// The lock belongs to the open file and vanishes with its process, so a crash leaves nothing that
/// blocks (a process that was forked off meanwhile and runs no other program shares the lock). Two
/// objects in one process conflict just as two processes do; shared holders coexist. The last
/// holder removes the file, without a race in which two parties hold the lock on different files of
/// that name. It works on every file system whose streams lock ranges; bytes 0 and 1 of the file
/// are locked, and its length is 0.
///
/// What is at the name but is no lock file, because it has content that is no mark of ours, or is a
/// symbolic link, is never changed, deleted or followed.
///
/// A failure to remove the file at the end is reported to `onExceptionInDestructorIgnored`; the
/// file that stays is in nobody's way.
class YX_API CLockFile : public CBase {
public:
    /// Whether others may hold the lock at the same time.
    enum LockType {
        Shared = 1,    ///< with other shared holders
        Exclusive = 2, ///< alone
    };

    /// Takes the lock or throws `CLockFileError` with "uri", without waiting for a holder. The
    /// messages:
    ///
    /// - `kLockFileInUseMessage`
    /// - "The lock file does not exist.", if `createFile` is false.
    /// - `kLockFileIsRemovedMessage`, if that takes half a second.
    /// - "The name of the lock file belongs to another file.", if that has content.
    /// - "The name of the lock file belongs to a symbolic link."
    /// - `kLockNotTakenMessagePrefix` and the message of the cause, if the file cannot be made,
    ///   opened for writing or locked; each type needs all of that.
    ///
    /// The cause is the file system's own error, where there is one. `keepFile` leaves the file in
    /// place at the end; `createFile` makes it when it is missing. On a file system that cannot
    /// lock, a file that was made for this is removed again.
    CLockFile(IFileSystem* fileSystem, CURI const& uri, LockType type, bool keepFile,
              bool createFile);
    CLockFile(CLockFile const&) = delete;
    CLockFile& operator=(CLockFile const&) = delete;
    ~CLockFile() override;

private:
    std::unique_ptr<detail::OpenLockFile> enter(IFileSystem* fileSystem, LockType type,
                                                bool existed) const;
    void take(IFileSystem* fileSystem, LockType type, bool createFile);

    CURI m_uri;
    bool m_keepFile;

    /// Present and locked.
    std::unique_ptr<detail::OpenLockFile> m_file;
};

} // namespace yx

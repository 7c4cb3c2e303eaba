#pragma once

#include <optional>
#include <string>

#include "host/system/file_descriptor.h"
#include "host/system/file_identity.h"

namespace kelm::host {

/// A lock on a whole file of the operating system, whatever name it was reached by: two names of
/// one file, a hard link or a bind mount, are the same lock. It belongs to this object and ends
/// with it, also when the process is killed; two objects of one process conflict as two processes
/// do.
///
/// Only those who ask for such a lock notice it. Not for files that are named by a URI of another
/// kind than "file".
class FileLock {
public:
    /// Who may hold a lock on the same file at the same time.
    enum class Type {
        Shared,    ///< beside other shared ones
        Exclusive, ///< alone
    };

    /// Holds nothing.
    FileLock() = default;

    /// Takes the lock at once, or not at all. A file system that has no such locks, and a file that
    /// is no regular one, give a lock that holds nothing.
    ///
    /// Another holder in the way is `CIOError` `AccessDenied` "The file is in use." with "path"; a
    /// file that cannot be opened, for writing too if the lock is exclusive, is what
    /// `throwSystemError` makes of it.
    static FileLock take(std::string const& path, Type type);

    /// The same, but nothing if another holder is in the way.
    static std::optional<FileLock> tryTake(std::string const& path, Type type);

    /// The same for a file that is open, for writing too if the lock is exclusive; it is kept open.
    static std::optional<FileLock> tryTake(FileDescriptor file, Type type);

    /// Whether a lock is held.
    bool isHeld() const { return m_file.isOpen(); }

    /// Which file is locked; only if a lock is held.
    FileIdentity getFile() const { return *identifyFile(m_file.get()); }

private:
    explicit FileLock(FileDescriptor file) : m_file(std::move(file)) {}

    FileDescriptor m_file;
};

} // namespace kelm::host

#pragma once

#include <optional>
#include <string>

#include "host/system/file_descriptor.h"
#include "host/system/file_identity.h"
#include "yx/base.h"

namespace kelm::host {

/// An open file that others use, for a lock that takes it as it is open.
class SharedOpenFile : public yx::CBase {
public:
    /// The operating system's number, the same as long as this lives; -1 for none.
    virtual int getFileDescriptor() const = 0;

    /// Whether others have the file open by the same descriptor. If not, it ends with this.
    virtual bool isInUse() const = 0;

    /// Whether it is a regular file, as the operating system says now.
    virtual bool isRegularFile() = 0;
};

/// A lock on a whole file of the operating system, whatever name it was reached by: two names of
/// one file, a hard link or a bind mount, are the same lock. It belongs to this object and ends
/// with it, also when the process is killed; two objects of one process conflict as two processes
/// do.
///
/// Only those who ask for such a lock notice it. A lock on a file of another store is made of what
/// holds it there; see `tryLockFile` (host/store/file_locking.h).
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

    /// The same for a file that others use, too; the lock ends at the end of this object all the
    /// same. It is one lock with any other that was taken by that descriptor.
    static std::optional<FileLock> tryTake(yx::P<SharedOpenFile> const& file, Type type);

    /// The lock on `file` that somebody else has taken, and that lasts as long as `holder`.
    static FileLock hold(yx::P<yx::IBase> holder, FileIdentity file);

    /// A move leaves no lock in the source; move assignment swaps the two.
    FileLock(FileLock&& other) noexcept { *this = std::move(other); }
    FileLock& operator=(FileLock&& other) noexcept {
        std::swap(m_file, other.m_file);
        std::swap(m_shared, other.m_shared);
        std::swap(m_holder, other.m_holder);
        std::swap(m_heldFile, other.m_heldFile);
        return *this;
    }
    ~FileLock();

    /// Whether a lock is held.
    bool isHeld() const { return m_holder || getDescriptor() >= 0; }

    /// Which file is locked; only if a lock is held.
    FileIdentity getFile() const { return m_holder ? m_heldFile : *identifyFile(getDescriptor()); }

private:
    explicit FileLock(FileDescriptor file) : m_file(std::move(file)) {}
    explicit FileLock(yx::P<SharedOpenFile> file) : m_shared(std::move(file)) {}

    int getDescriptor() const { return m_shared ? m_shared->getFileDescriptor() : m_file.get(); }

    FileDescriptor m_file;

    /// Another of the three; all are empty if no lock is held.
    yx::P<SharedOpenFile> m_shared;

    yx::P<yx::IBase> m_holder;
    FileIdentity m_heldFile;
};

} // namespace kelm::host

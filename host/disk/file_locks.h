#pragma once

#include <map>
#include <optional>
#include <set>

#include "host/system/file_lock.h"
#include "yx/stream.h"

namespace kelm::host {

/// The whole message where a lock on a file of a disk is in the way, as `yx::kLockFileInUseMessage`
/// is where the lock file is.
inline constexpr char kFileInUseMessage[] =
    "The disk is in use: its file is held by another program or another open disk.";

/// The locks on the files of a disk, held for as long as this lives: one for each file, whatever
/// names it is reached by. So an opening never conflicts with another one of the same disk object.
class FileLocks : public yx::CBase {
public:
    FileLocks() = default;
    FileLocks(FileLocks const&) = delete;
    FileLocks& operator=(FileLocks const&) = delete;
    ~FileLocks() override = default;

    /// Locks a file, which exists. A lock on it that is here already stays as it is, of whatever
    /// type, and so does that on a file which `makeFile` has made and which has lost its name since.
    /// Files of URIs without a store are not locked. Returns whether a lock is held, which it is not
    /// on a file system without locks.
    ///
    /// Another holder in the way is `CLockFileError` `kFileInUseMessage` with "uri"; other errors
    /// are those of `tryLockFile`.
    bool take(yx::CURI const& uri, FileLock::Type type);

    /// The same for the file of a URI, which is open.
    bool take(yx::CURI const& uri, yx::P<SharedOpenFile> const& file, FileLock::Type type);

    /// The same for a stream of another store than the operating system's.
    bool take(yx::CURI const& uri, yx::P<yx::IIOStream> const& stream, FileLock::Type type);

    /// Makes a new, empty file, locks it alone and says which one it is. Of two who make a file of
    /// one name, one fails.
    ///
    /// A file that is there is `yx::CIOError` `AlreadyExists` "The file exists already." with
    /// "uri"; one that another program was quicker to lock is `CLockFileError` as in `take`. That
    /// program may also have taken the file away, so that the name may be another file's by now.
    /// Other errors are those of the store (`IStore::createFile`). For URIs with a store.
    FileIdentity makeFile(yx::CURI const& uri);

    /// Ends all locks.
    void endAll() {
        m_sole.reset();
        m_locks.clear();
        m_made.clear();
    }

    /// Refuses, as `take` does, a file that somebody else has locked. A file that is not there, or
    /// that cannot be locked, is nobody's.
    void verifyIsFree(yx::CURI const& uri);

private:
    bool keep(FileLock lock);
    FileLock const* find(FileIdentity const& file);
    void identifySole();

    /// The only lock, as long as nobody has asked which file it is on.
    std::optional<FileLock> m_sole;
    std::map<FileIdentity, FileLock> m_locks;

    /// The names of files that were made, in normal form.
    std::set<yx::CURI> m_made;
};

} // namespace kelm::host

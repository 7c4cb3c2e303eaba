#pragma once

#include <optional>
#include <string>

#include "yx/file_system.h"

namespace yx::detail {

/// A lock file that is open, as one party of the agreement between all users of lock files on its
/// name. Internal.
///
/// What the parties agree on:
///
/// | Of the file | Meaning                                                                        |
/// |-------------|--------------------------------------------------------------------------------|
/// | byte 0      | The lock itself, shared or exclusive.                                          |
/// | byte 1      | Presence: everybody who uses the file holds it shared, from before the first   |
/// |             | look at the file to the end. Who holds it exclusively is alone.                |
/// | content     | Empty: the file is alive. A mark (below): it is dead, removed or about to be.  |
/// |             | Anything else: it is somebody's file, and is left as it is.                    |
///
/// - The content changes, and the file is deleted, only by one who is alone on the file, and a file
///   is deleted only when it is dead. So a file that was seen alive by one who is present stays
///   alive and keeps its name as long as that party is present: nobody else can lock another file
///   of that name.
/// - Whoever leaves tries to be alone and then removes the file. If others are present, one of them
///   comes to leave after, so the last one removes it, whether it ever got the lock or not.
/// - A party that opened the file before it was removed finds it dead, and opens the name again.
/// - A crash frees all ranges. It may leave the file behind, alive: then the next one uses it; or
///   dead: then the next one makes it alive again.
/// - A symbolic link at the name is never followed, so no other file can be taken for a lock file.
///
/// A mark is the text "kelm dead lock: " and 16 random hexadecimal digits, or less of them where a
/// crash cut the writing short. It shows whether a dead file still has its name: one who is alone
/// writes a new mark and looks whether the file at the name has just that. Where the operating
/// system says that the file has its name, nothing is read back, and the digits are the file's
/// number, which no other file has.
///
/// A shared lock and the presence are taken together where nobody is in the way. One who leaves
/// asks for the whole of the presence while it still holds its share, and gives that up only if
/// others are present.
class OpenLockFile {
public:
    /// Makes the file if there is none, and says so by a stream on it; null in every other case,
    /// and for file systems that cannot do both at once.
    static P<IIOStream> tryMake(IFileSystem& fileSystem, CURI const& uri);

    /// Opens the file, and makes it if there is none, unless `made` is the stream of one who has
    /// just made it. A symbolic link at the name is `CLockFileError`. Other errors are those of the
    /// file system.
    OpenLockFile(IFileSystem* fileSystem, CURI const& uri, P<IIOStream> const& made);
    OpenLockFile(OpenLockFile const&) = delete;
    OpenLockFile& operator=(OpenLockFile const&) = delete;

    /// Ends the presence and the lock, and leaves the file in place.
    ~OpenLockFile() = default;

    /// Becomes present, for a lock of that type. False if the file is dead or is being removed: then
    /// this object is of no more use, and the name is to be opened again. Somebody's file is
    /// `CLockFileError`. Other errors are those of the stream.
    bool tryEnter(IStreamBase::LockType type);

    /// Whether others can see that this party uses the file.
    bool isPresent() const { return static_cast<bool>(m_presence); }

    /// Takes the lock that `tryEnter` was told of, once present. Another holder in the way is
    /// `CIOError` `AccessDenied`.
    void lock();

    /// Removes the file unless others are present; the last step of one who leaves. Somebody's
    /// file, or a link, that has come to the name or into the file stays. Errors are those of the
    /// file system; the file may then stay, which does no harm.
    void removeIfAlone();

    /// Removes the file if it is alive, where nobody can lock it. Errors are those of the file
    /// system.
    void removeUnlocked();

private:
    enum class State { Alive, Dead, Foreign };

    /// What the system knows a file by.
    struct Identity {
        unsigned long long device;
        unsigned long long inode;
    };

    P<IStreamLock> tryLock(__int64 position, __int64 length, IStreamBase::LockType type);
    P<IStreamLock> tryLockPresence(IStreamBase::LockType type);
    State readState();
    State readContentState();
    bool becomeAlone();
    bool becomeAloneOnNamedFile();
    bool isKnownToHaveName();
    __int64 getLengthAndIdentity();
    void leaveLocksToEndOfFile();
    std::string writeMark(bool hasName);
    bool isContentOfNamedFile(std::string const& content);

    P<IFileSystem> m_fileSystem;
    CURI m_uri;
    P<IIOStream> m_stream;

    /// Two tokens on one range if it is both.
    P<IStreamLock> m_presence;
    P<IStreamLock> m_lock;
    IStreamBase::LockType m_type = IStreamBase::Shared;

    /// That of the open file, from the first look at it on; nothing of a file of another kind.
    std::optional<Identity> m_identity;

    /// The last question for the file at the name has told that.
    bool m_isKnownEmpty = false;
};

} // namespace yx::detail

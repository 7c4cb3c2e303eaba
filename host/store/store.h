#pragma once

#include <optional>
#include <string>
#include <vector>

#include "host/system/file_identity.h"
#include "yx/file_system.h"

namespace kelm::host {

/// What a name in a store stands for.
enum class FileKind {
    File,
    Folder,
    Link,  ///< only where links are not followed
    Other, ///< a device, a pipe or a socket
};

/// What is known of a file.
struct FileStatus {
    FileKind kind = FileKind::Other; ///< what the name stands for

    /// With the holes. Of a folder, whatever the store says.
    __int64 lengthBytes = 0;

    /// What the file takes, without its holes; the length where the store does not say.
    __int64 allocatedBytes = 0;

    /// When the file was last written, in nanoseconds since 1970; 0 where the store does not say.
    __int64 modifiedNanoseconds = 0;

    FileIdentity identity; ///< which file it is
};

/// An entry of a folder.
struct FolderEntry {
    std::string name;                ///< not escaped; bytes that are no UTF-8 are as they are
    FileKind kind = FileKind::Other; ///< links are not followed
};

/// How much room there is, in bytes.
struct StoreRoom {
    __int64 totalBytes = 0; ///< used or not
    __int64 freeBytes = 0;  ///< for this process
};

/// A place that files lie in, with what a host needs of it beside the three operations of
/// `yx::IFileSystem`: the files of the operating system, of a cluster, of a bucket. `findStore`
/// finds the one of a URI.
///
/// Names are URIs of the store's scheme. Unless it says something else, an operation that fails
/// throws `yx::CIOError` with "uri" and the codes of `yx::getSystemErrorCode`: `NotFound`,
/// `AccessDenied`, `NoSpace` and so on. A store that is for reading only refuses what would change
/// it with `AccessDenied`. Serves any number of threads.
class IStore : public virtual yx::IFileSystem {
public:
    /// The one name of a file among all its spellings, in normal form: links and ".." are resolved,
    /// in the folder alone for a file that does not exist yet. A folder that does not exist, and a
    /// link to a file that does not exist, is `NotFound`; a name that no file can have, such as one
    /// that ends in a separator and is no folder's, too.
    virtual yx::CURI resolveName(yx::CURI const& uri) = 0;

    /// What a name stands for; nothing where there is none, also since no file could have that name.
    /// With `followLinks` false a link at its end is described itself.
    virtual std::optional<FileStatus> findStatus(yx::CURI const& uri, bool followLinks) = 0;

    /// What a stream, which this store has opened, is open on, whatever has its name by now.
    /// Another stream is `yx::CInvalidArgError`, a closed one `Closed`.
    virtual FileStatus getOpenStatus(yx::IStreamBase& stream) = 0;

    /// The entries of a folder but "." and "..", in the order of their bytes. What is no folder is
    /// `NotFound`.
    virtual std::vector<FolderEntry> listFolder(yx::CURI const& folder) = 0;

    /// Makes an empty file and opens it for reading and writing. One that is there, also as a link,
    /// is `AlreadyExists` "The file exists already.": of several that try, on whatever machine, one
    /// succeeds.
    virtual yx::P<yx::IIOStream> createFile(yx::CURI const& uri) = 0;

    /// Makes a folder; one that is there is `AlreadyExists`.
    virtual void makeFolder(yx::CURI const& folder) = 0;

    /// Removes an empty folder.
    virtual void removeFolder(yx::CURI const& folder) = 0;

    /// Gives a file another name in the same store, in one step for all who look; what was at `to`
    /// is gone. A link is renamed itself. Where that cannot be done in one step, `NotSupported`.
    virtual void rename(yx::CURI const& from, yx::CURI const& to) = 0;

    /// The same, but a file that is at `to` stays, and is `AlreadyExists` "The file exists already."
    virtual void renameIfAbsent(yx::CURI const& from, yx::CURI const& to) = 0;

    /// Gives a file a second name (a hard link). False where the store has none, or none for this
    /// file, or not in that folder; a name that is taken is `AlreadyExists` as for `createFile`.
    virtual bool tryAddName(yx::CURI const& from, yx::CURI const& to) = 0;

    /// Gives a file the owner, the group and the mode of another one of the store, as far as this
    /// process may. Does nothing where files have none.
    virtual void copyRights(yx::CURI const& from, yx::CURI const& to) {
        static_cast<void>(from);
        static_cast<void>(to);
    }

    /// Returns when what was made, renamed and deleted in the folder outlives a loss of this
    /// machine. A folder that may not be read passes.
    virtual void syncFolder(yx::CURI const& folder) = 0;

    /// Refuses a folder in which this process may not make files: `AccessDenied`. A folder that does
    /// not exist passes.
    virtual void verifyMayWriteIn(yx::CURI const& folder) = 0;

    /// The room where a folder lies, or that of the nearest limit above it (a quota); nothing where
    /// the store does not say.
    virtual std::optional<StoreRoom> findRoom(yx::CURI const& folder) = 0;

    /// The longest that a file there may become; what would make it longer is `NoSpace`. The largest
    /// number where there is no limit, or none that is known.
    virtual __int64 getMaxFileLengthBytes(yx::CURI const& uri) = 0;

    /// Makes all calls that wait for the store fail in bounded time with `IOFailure`, and all later
    /// ones at once; does not wait for that. For another thread than those that wait. Does nothing
    /// where calls cannot be ended.
    virtual void abandon() noexcept = 0;
};

} // namespace kelm::host

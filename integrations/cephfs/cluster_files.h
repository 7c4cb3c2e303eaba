#pragma once

#include <string>
#include <vector>

#include "yx/file_system.h"

namespace kelm::ceph {

/// What a cluster's file system can do beyond `yx::IFileSystem`, for hosts that list, measure and
/// rename. A host asks the object for it by `dynamic_cast`.
///
/// Names are URIs as `CCephFileSystem` takes them. Errors are `yx::CIOError` with "uri" and the
/// codes of `yx::getSystemErrorCode`, as those of the file system's own operations.
class IClusterFiles : public virtual yx::IBase {
public:
    /// What a name stands for.
    enum class FileKind {
        File,
        Folder,
        Link,  ///< only where links are not followed
        Other, ///< a device, a pipe or a socket
    };

    /// Tells files apart, by whatever names they are reached. Two files that exist at the same time
    /// have different identities.
    struct FileIdentity {
        std::string cluster;           ///< the cluster's own identity, a UUID
        __int64 fileSystem = 0;        ///< the file system's number in the cluster
        unsigned long long inode = 0;  ///< the file's number in the file system
        unsigned long long branch = 0; ///< tells a snapshot's files from those of today

        bool operator==(FileIdentity const&) const = default;
    };

    /// What is known of a file.
    struct FileStatus {
        FileKind kind = FileKind::Other;
        __int64 lengthBytes = 0; ///< of a folder, what all below it take together

        /// What the file was last written, in nanoseconds since 1970.
        __int64 modifiedNanoseconds = 0;

        FileIdentity identity;
    };

    /// An entry of a folder.
    struct FolderEntry {
        std::string name; ///< not escaped; bytes that are no UTF-8 are as they are
        FileKind kind = FileKind::Other;
    };

    /// How much room there is, in bytes.
    struct Room {
        __int64 totalBytes = 0;
        __int64 freeBytes = 0;
    };

    /// What `uri` stands for. With `followLinks` false a link at its end is described itself.
    virtual FileStatus getStatus(yx::CURI const& uri, bool followLinks) = 0;

    /// What `stream`, which this file system has opened, is open on, whatever has its name by now.
    /// Another stream is `yx::CInvalidArgError`, a closed one `Closed`.
    virtual FileStatus getOpenStatus(yx::IStreamBase& stream) = 0;

    /// The entries of a folder but "." and "..", in the order of their bytes. What is no folder is
    /// `NotFound`.
    virtual std::vector<FolderEntry> listFolder(yx::CURI const& uri) = 0;

    /// Makes an empty file and opens it for reading and writing. One that is there, also as a link,
    /// is `AlreadyExists`: of several that try, on whatever machine, one succeeds.
    virtual yx::P<yx::IIOStream> createFile(yx::CURI const& uri) = 0;

    /// Makes a folder; one that is there is `AlreadyExists`.
    virtual void makeFolder(yx::CURI const& uri) = 0;

    /// Removes an empty folder.
    virtual void removeFolder(yx::CURI const& uri) = 0;

    /// Gives a file or folder another name in the same file system, in one step for all who look;
    /// what was at `to` is gone. A link is renamed itself. Another cluster, file system or user is
    /// `NotSupported`.
    virtual void rename(yx::CURI const& from, yx::CURI const& to) = 0;

    /// Returns when what was made, renamed and deleted in the folder through this object outlives a
    /// loss of this machine and of metadata servers.
    virtual void syncFolder(yx::CURI const& uri) = 0;

    /// The room of the file system that `uri` is in, or of the nearest folder above it that has a
    /// limit (a quota).
    virtual Room getRoom(yx::CURI const& uri) = 0;

    /// The longest that a file of the file system may become, as its administrator has set it
    /// (`max_file_size`). What would make a file longer is `NoSpace`; so is setting its length to
    /// just that, which the metadata servers refuse though they let it be written.
    virtual __int64 getMaxFileLengthBytes(yx::CURI const& uri) = 0;
};

} // namespace kelm::ceph

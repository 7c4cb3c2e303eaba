#pragma once

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "host/store/store.h"
#include "host/store/store_holders.h"
#include "integrations/cephfs/ceph_mount.h"

namespace kelm::ceph {

/// The files of Ceph clusters' file systems, named by URIs `ceph://[USER@][FILESYSTEM]/PATH`;
/// `ceph:/x` and `ceph:///x` are one name. Any other URI is `CIOError` `NotSupported`. The name of a
/// file system is that of the cluster, in its own case; a URI that is normalised has it in lower
/// case, but for those of `resolveName`.
///
/// Connects when it is first used, once for each user and file system, and takes leave when it and
/// all its streams and locks are gone, or the process ends by `exit`. It must not be used before a
/// process forks and after it: in the child, `CIOError` `NotSupported` says so.
///
/// Its streams behave as those of `yx::CNativeFileSystem`, and so do its errors, with words of their
/// own where the cluster has lost the client. A name that ends in a separator is no file. Locked
/// ranges keep out all other streams, of whatever process and machine. Serves any number of threads.
class CCephFileSystem : public yx::CBase, public virtual host::IStore, public host::IStoreHolders {
public:
    CCephFileSystem() = default;

    yx::P<yx::IIOStream> openFile(yx::CURI const& uri, yx::IIOStream::Access access,
                                  unsigned int* options) override;
    bool fileExists(yx::CURI const& uri) override;
    void deleteFile(yx::CURI const& uri, bool ignoreMissing) override;

    /// Links lead where the client takes them: one to an absolute path begins at the root of the
    /// session, which for a user of one folder is that folder. User and file system stay as they
    /// are given, and only the rest is normalised.
    yx::CURI resolveName(yx::CURI const& uri) override;

    std::optional<host::FileStatus> findStatus(yx::CURI const& uri, bool followLinks) override;
    host::FileStatus getOpenStatus(yx::IStreamBase& stream) override;
    std::vector<host::FolderEntry> listFolder(yx::CURI const& folder) override;
    yx::P<yx::IIOStream> createFile(yx::CURI const& uri) override;
    void makeFolder(yx::CURI const& folder) override;
    void removeFolder(yx::CURI const& folder) override;

    /// Another cluster, file system or user is `NotSupported`.
    void rename(yx::CURI const& from, yx::CURI const& to) override;

    /// The file has both names for a moment, and still has if the machine is lost in it. A folder is
    /// `NotSupported`.
    void renameIfAbsent(yx::CURI const& from, yx::CURI const& to) override;

    bool tryAddName(yx::CURI const& from, yx::CURI const& to) override;
    void copyRights(yx::CURI const& from, yx::CURI const& to) override;
    void syncFolder(yx::CURI const& folder) override;

    /// Makes a file of a name that nobody else has, and takes it away.
    void verifyMayWriteIn(yx::CURI const& folder) override;

    /// Of the limits above the folder, the one that leaves the least.
    std::optional<host::StoreRoom> findRoom(yx::CURI const& folder) override;

    /// As the administrator has set it (`max_file_size`). Setting a length to just that is refused,
    /// as the metadata servers do, though they let it be written.
    __int64 getMaxFileLengthBytes(yx::CURI const& uri) override;

    /// What waits fails with "The connection to the cluster was given up.", and so does all that
    /// comes later. What was written and not flushed may or may not reach the cluster. No leave is
    /// taken of it, so locks stay until the process has ended and is missed.
    void abandon() noexcept override;

    /// The URIs are those of `resolveName`, all of one user and file system. Clients of processes of
    /// this machine that have ended without taking leave are forgotten by the cluster, of whatever
    /// cluster user they were, but for those of other users that have some of the files. The errors
    /// are those of `CephMetadataServers`.
    std::vector<host::StoreHolder> findHolders(std::vector<yx::CURI> const& files) override;

    void shutOut(yx::CURI const& uri, std::string const& number) override;

private:
    using User = std::pair<std::string, std::string>; ///< and the file system's name

    /// A name, and the connection that it is reached by.
    struct Target {
        std::shared_ptr<CephMount> mount;
        std::string path; ///< the client's own
    };

    /// Two names in one file system.
    struct TwoTargets {
        Target from;
        Target to;
    };

    Target reach(CephLocation const& location, yx::CURI const& uri);
    Target reach(yx::CURI const& uri);
    TwoTargets reachBoth(yx::CURI const& from, yx::CURI const& to);
    std::shared_ptr<CephMount> mountOf(CephLocation const& location, yx::CURI const& uri);
    yx::P<yx::IIOStream> open(yx::CURI const& uri, yx::IIOStream::Access access, int flags);
    bool isOwnClient(__int64 number);

    std::shared_ptr<CephCalls> m_calls = std::make_shared<CephCalls>();
    std::mutex m_mutex;
    std::map<User, std::shared_ptr<CephMount>> m_mounts;
};

} // namespace kelm::ceph

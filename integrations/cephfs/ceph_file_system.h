#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <utility>

#include "integrations/cephfs/ceph_mount.h"
#include "integrations/cephfs/cluster_files.h"

namespace kelm::ceph {

/// The files of Ceph clusters' file systems, named by URIs `ceph://[USER@][FILESYSTEM]/PATH`;
/// `ceph:/x` and `ceph:///x` are one name. Any other URI is `CIOError` `NotSupported`. The name of a
/// file system is that of the cluster, in its own case; a URI that is normalised has it in lower
/// case.
///
/// Connects when it is first used, once for each user and file system, and takes leave when it and
/// all its streams and locks are gone. It must not be used before a process forks and after it: in
/// the child, `CIOError` `NotSupported` says so.
///
/// Its streams behave as those of `yx::CNativeFileSystem`, and so do its errors, with words of their
/// own where the cluster has lost the client. A name that ends in a separator is no file. Locked
/// ranges keep out all other streams, of whatever process and machine. Serves any number of threads.
class CCephFileSystem : public yx::CBase,
                        public virtual yx::IFileSystem,
                        public virtual IClusterFiles {
public:
    CCephFileSystem() = default;

    yx::P<yx::IIOStream> openFile(yx::CURI const& uri, yx::IIOStream::Access access,
                                  unsigned int* options) override;
    bool fileExists(yx::CURI const& uri) override;
    void deleteFile(yx::CURI const& uri, bool ignoreMissing) override;

    FileStatus getStatus(yx::CURI const& uri, bool followLinks) override;
    FileStatus getOpenStatus(yx::IStreamBase& stream) override;
    std::vector<FolderEntry> listFolder(yx::CURI const& uri) override;
    yx::P<yx::IIOStream> createFile(yx::CURI const& uri) override;
    void makeFolder(yx::CURI const& uri) override;
    void removeFolder(yx::CURI const& uri) override;
    void rename(yx::CURI const& from, yx::CURI const& to) override;
    void syncFolder(yx::CURI const& uri) override;
    Room getRoom(yx::CURI const& uri) override;
    __int64 getMaxFileLengthBytes(yx::CURI const& uri) override;

private:
    using User = std::pair<std::string, std::string>; ///< and the file system's name

    /// A name, and the connection that it is reached by.
    struct Target {
        std::shared_ptr<CephMount> mount;
        ceph_mount_info* client;
        std::string path; ///< the client's own
    };

    Target reach(CephLocation const& location, yx::CURI const& uri);
    Target reach(yx::CURI const& uri);
    std::shared_ptr<CephMount> mountOf(CephLocation const& location, yx::CURI const& uri);
    yx::P<yx::IIOStream> open(yx::CURI const& uri, yx::IIOStream::Access access, int flags);

    std::mutex m_mutex;
    std::map<User, std::shared_ptr<CephMount>> m_mounts;
};

} // namespace kelm::ceph

#pragma once

#include <string>

#include <sys/types.h>

#include "integrations/cephfs/ceph_location.h"

struct ceph_mount_info;

namespace kelm::ceph {

/// One client of a cluster: a session as one user on one file system. Ends with its last owner.
///
/// Settings are read from where Ceph's own programs read them: the file that CEPH_CONF names, or
/// ceph.conf in the usual places, and the options in CEPH_ARGS, of which `--id`, `--user`, `-i`,
/// `--name` and `-n` name the user for URIs that name none. Where they do not set
/// `client_oc_size`, the client caches up to 32 MiB.
///
/// Serves any number of threads, of the process that made it.
class CephMount {
public:
    /// Connects. `uri` is for errors, which are `yx::CIOError` with "uri". A process that was forked
    /// off while there was a connection cannot make one: `NotSupported`.
    ///
    /// The session is for all of the file system; for a user who has rights to a part of it alone, it
    /// is for the first folder on the way to the location's path that the user may enter.
    CephMount(CephLocation const& location, yx::CURI const& uri);
    CephMount(CephMount const&) = delete;
    CephMount& operator=(CephMount const&) = delete;

    /// Takes leave of the cluster, so that it does not wait for this client.
    ~CephMount();

    /// The client's own handle. A process that was forked off has no threads of the client, and
    /// would wait for them without end: there it is `NotSupported` with "uri".
    ceph_mount_info* use(yx::CURI const& uri) const;

    /// The same for ending something; null in a process that was forked off.
    ceph_mount_info* tryUse() const noexcept;

    /// What the client calls a path of the file system. One outside the folder that the session is
    /// for is `AccessDenied` with "uri".
    std::string toClientPath(std::string const& path, yx::CURI const& uri) const;

    /// The identity of the cluster, a UUID.
    std::string const& getClusterID() const { return m_clusterID; }

    /// The number of the file system in the cluster.
    __int64 getFileSystemNumber() const { return m_fileSystemNumber; }

    /// The longest that a file may become.
    __int64 getMaxFileLengthBytes(yx::CURI const& uri) const;

private:
    void connect(CephLocation const& location, yx::CURI const& uri);
    void enterFolder(std::string const& path, yx::CURI const& uri);
    std::string getSetting(char const* name) const;

    ceph_mount_info* m_client = nullptr;
    pid_t m_process;

    /// The folder that the session is for, without a separator at its end; empty for the root.
    std::string m_folder;
    std::string m_clusterID;
    __int64 m_fileSystemNumber = -1;
};

} // namespace kelm::ceph

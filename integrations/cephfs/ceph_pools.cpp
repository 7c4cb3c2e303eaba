#include "integrations/cephfs/ceph_pools.h"

#include <cerrno>

#include <cephfs/libcephfs.h>
#include <fcntl.h>

namespace kelm::ceph {

void CephPools::enter(ceph_mount_info* client, std::string const& path, int descriptor,
                      bool isWritable) {
    std::lock_guard const guard(m_mutex);
    int const pool = ceph_get_file_pool(client, descriptor);
    if (pool < 0 || m_tried.contains(pool))
        return;
    int const reader = isWritable ? ceph_open(client, path.c_str(), O_RDONLY, 0) : descriptor;
    if (reader < 0)
        return;
    // The client has no question for it. But it refuses to write to a full pool before it refuses to
    // write to what is open for reading; so nothing is sent and nothing can be written.
    char byte = 0;
    bool const isFull = ceph_write(client, reader, &byte, 1, 0) == -ENOSPC;
    letClientTryRights(client, !isFull);
    if (!isFull) {
        // It tries them out at the first read, which may be long after the opening.
        ceph_read(client, reader, &byte, 1, 0);
        m_tried.insert(pool);
    }
    if (reader != descriptor)
        ceph_close(client, reader);
}

void CephPools::letClientTryRights(ceph_mount_info* client, bool isTried) {
    if (isTried != m_isLeftOut)
        return;
    ceph_conf_set(client, "client_check_pool_perm", isTried ? "true" : "false");
    m_isLeftOut = !isTried;
}

} // namespace kelm::ceph

#pragma once

#include <mutex>
#include <set>
#include <string>

struct ceph_mount_info;

namespace kelm::ceph {

/// What a client knows of the pools that its files lie in. Serves any number of threads.
///
/// Before its first read or write in a pool, a client tries out its rights, and writes an object for
/// that. Where the pool is full, this would wait until it is not, and so nobody who came later could
/// read there.
class CephPools {
public:
    CephPools() = default;
    CephPools(CephPools const&) = delete;
    CephPools& operator=(CephPools const&) = delete;

    /// Lets the client try out its rights to the pool of a file that it has just opened, once for each
    /// pool, or has it leave that out as long as the pool is full. A right that is missing is told by
    /// what needs it.
    void enter(ceph_mount_info* client, std::string const& path, int descriptor, bool isWritable);

private:
    void letClientTryRights(ceph_mount_info* client, bool isTried);

    std::mutex m_mutex;

    /// The numbers of those that the client has its rights to tried out.
    std::set<int> m_tried;
    bool m_isLeftOut = false;
};

} // namespace kelm::ceph

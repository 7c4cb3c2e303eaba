#include "integrations/cephfs/ceph_file.h"

#include <atomic>
#include <cerrno>

#include <cephfs/libcephfs.h>

// The client's header gives these to C alone; in both languages they are passed alike.
struct inodeno_t {
    std::uint64_t val;
};
struct snapid_t {
    std::uint64_t val;
};
struct vinodeno_t {
    inodeno_t ino;
    snapid_t snapid;
};

namespace kelm::ceph {

namespace {

/// The cluster tells owners apart by this number and the client.
unsigned long long makeLockOwner() {
    static std::atomic<unsigned long long> lastOwner{0};
    return ++lastOwner;
}

} // namespace

int CephFile::query(ceph_mount_info* client, struct ceph_statx& status, unsigned int want) const {
    return ceph_fstatx(client, m_descriptor, &status, want, 0);
}

int CephFile::setLock(short type, __int64 begin, __int64 end) noexcept {
    ceph_mount_info* const client = m_mount->tryUse();
    if (!client)
        return -ENOTCONN;
    if (!m_lockHandle) {
        if (int const result = openLockHandle(client); result != 0)
            return result;
    }
    struct flock range {};
    range.l_type = type;
    range.l_whence = SEEK_SET;
    range.l_start = begin;
    range.l_len = end - begin;
    return ceph_ll_setlk(client, m_lockHandle, &range, m_lockOwner, 0);
}

int CephFile::close() noexcept {
    ceph_mount_info* const client = m_mount->tryUse();
    int result = 0;
    if (client && m_lockHandle)
        ceph_ll_close(client, m_lockHandle);
    if (client && m_inode)
        ceph_ll_put(client, m_inode);
    if (client && m_descriptor >= 0)
        result = ceph_close(client, m_descriptor);
    m_lockHandle = nullptr;
    m_inode = nullptr;
    m_descriptor = -1;
    return result;
}

int CephFile::openLockHandle(ceph_mount_info* client) {
    if (!m_inode) {
        struct ceph_statx status {};
        if (int const result = query(client, status, CEPH_STATX_INO); result != 0)
            return result;
        // The name may be another file's by now; the open file's number is not.
        m_inode = ceph_ll_get_inode(client, {{status.stx_ino}, {status.stx_dev}});
        if (!m_inode)
            return -ESTALE;
    }
    m_lockOwner = makeLockOwner();
    return ceph_ll_open(client, m_inode, m_isWritable ? O_RDWR : O_RDONLY, &m_lockHandle,
                        ceph_mount_perms(client));
}

} // namespace kelm::ceph

#include "integrations/cephfs/ceph_file.h"

#include <atomic>
#include <cerrno>
#include <utility>

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

CephFile::CephFile(std::shared_ptr<CephMount> mount, int descriptor, bool isWritable)
    : m_mount(std::move(mount)),
      m_descriptor(descriptor),
      m_isWritable(isWritable),
      m_lockHandle(std::make_shared<LockHandle>()) {}

int CephFile::setLock(short type, __int64 begin, __int64 end) noexcept {
    int const openMode = m_isWritable ? O_RDWR : O_RDONLY;
    return m_mount->tryCall(
        [=, descriptor = m_descriptor, handle = m_lockHandle](ceph_mount_info* client) {
            if (!handle->file) {
                if (int const result = openLockHandle(client, descriptor, openMode, *handle);
                    result != 0)
                    return result;
            }
            struct flock range {};
            range.l_type = type;
            range.l_whence = SEEK_SET;
            range.l_start = begin;
            range.l_len = end - begin;
            return ceph_ll_setlk(client, handle->file, &range, handle->owner, 0);
        });
}

int CephFile::close() noexcept {
    if (m_descriptor < 0)
        return 0;
    int const descriptor = std::exchange(m_descriptor, -1);
    // Then the file has ended with the connection, or is another process's to close.
    if (!m_mount->isUsable())
        return 0;
    return m_mount->tryCall([descriptor, handle = m_lockHandle](ceph_mount_info* client) {
        if (handle->file)
            ceph_ll_close(client, std::exchange(handle->file, nullptr));
        if (handle->inode)
            ceph_ll_put(client, std::exchange(handle->inode, nullptr));
        return ceph_close(client, descriptor);
    });
}

int CephFile::openLockHandle(ceph_mount_info* client, int descriptor, int openMode,
                             LockHandle& handle) {
    if (!handle.inode) {
        struct ceph_statx status {};
        if (int const result = ceph_fstatx(client, descriptor, &status, CEPH_STATX_INO, 0);
            result != 0)
            return result;
        // The name may be another file's by now; the open file's number is not.
        handle.inode = ceph_ll_get_inode(client, {{status.stx_ino}, {status.stx_dev}});
        if (!handle.inode)
            return -ESTALE;
    }
    handle.owner = makeLockOwner();
    return ceph_ll_open(client, handle.inode, openMode, &handle.file, ceph_mount_perms(client));
}

} // namespace kelm::ceph

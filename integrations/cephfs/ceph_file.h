#pragma once

#include <memory>

#include "integrations/cephfs/ceph_mount.h"

struct Inode;
class Fh;
struct ceph_statx;

namespace kelm::ceph {

/// An open file of a cluster. Shared by a stream and by the tokens of its locks, which end with it.
///
/// Ranges are locked through a second handle of the client's lower interface, since the upper one
/// locks whole files only.
class CephFile {
public:
    /// Takes over `descriptor`, which the mount's client has opened; `isWritable` says how.
    CephFile(std::shared_ptr<CephMount> mount, int descriptor, bool isWritable)
        : m_mount(std::move(mount)), m_descriptor(descriptor), m_isWritable(isWritable) {}
    CephFile(CephFile const&) = delete;
    CephFile& operator=(CephFile const&) = delete;

    /// Ignores a failure; call `close` to see it.
    ~CephFile() { close(); }

    CephMount& getMount() const { return *m_mount; }
    int getDescriptor() const { return m_descriptor; }

    /// Fills in what `want` (a sum of CEPH_STATX_ values) asks for. Returns 0 or a negative `errno`
    /// value.
    int query(ceph_mount_info* client, struct ceph_statx& status, unsigned int want) const;

    /// Sets (F_RDLCK, F_WRLCK) or frees (F_UNLCK) a lock from `begin` to before `end`, without
    /// waiting. All locks of one file object have one owner; those of others, in whatever process,
    /// have another one. Returns 0 or a negative `errno` value.
    int setLock(short type, __int64 begin, __int64 end) noexcept;

    /// Gives the handles back and returns 0, or the negative `errno` value of the failure; they are
    /// gone in any case.
    int close() noexcept;

private:
    int openLockHandle(ceph_mount_info* client);

    std::shared_ptr<CephMount> m_mount;
    int m_descriptor;
    bool m_isWritable;

    /// Both null until the first lock.
    Inode* m_inode = nullptr;
    Fh* m_lockHandle = nullptr;
    unsigned long long m_lockOwner = 0;
};

} // namespace kelm::ceph

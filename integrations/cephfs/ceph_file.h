#pragma once

#include <memory>

#include "integrations/cephfs/ceph_mount.h"

struct Inode;
class Fh;

namespace kelm::ceph {

/// An open file of a cluster. Shared by a stream and by the tokens of its locks, which end with it.
///
/// Ranges are locked through a second handle of the client's lower interface, since the upper one
/// locks whole files only.
class CephFile {
public:
    /// Takes over `descriptor`, which the mount's client has opened; `isWritable` says how.
    CephFile(std::shared_ptr<CephMount> mount, int descriptor, bool isWritable);
    CephFile(CephFile const&) = delete;
    CephFile& operator=(CephFile const&) = delete;

    /// Ignores a failure; call `close` to see it.
    ~CephFile() { close(); }

    CephMount& getMount() const { return *m_mount; }
    int getDescriptor() const { return m_descriptor; }

    /// Sets (F_RDLCK, F_WRLCK) or frees (F_UNLCK) a lock from `begin` to before `end`, without
    /// waiting. All locks of one file object have one owner; those of others, in whatever process,
    /// have another one. Returns 0 or a negative `errno` value.
    int setLock(short type, __int64 begin, __int64 end) noexcept;

    /// Gives the handles back and returns 0, or the negative `errno` value of the failure; they are
    /// gone in any case.
    int close() noexcept;

private:
    /// What locks are set through. A call that was left alone may still use it.
    struct LockHandle {
        Inode* inode = nullptr; ///< null until the first lock
        Fh* file = nullptr;     ///< as well
        unsigned long long owner = 0;
    };

    static int openLockHandle(ceph_mount_info* client, int descriptor, int openMode,
                              LockHandle& handle);

    std::shared_ptr<CephMount> m_mount;
    int m_descriptor;
    bool m_isWritable;
    std::shared_ptr<LockHandle> m_lockHandle;
};

} // namespace kelm::ceph

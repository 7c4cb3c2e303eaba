#pragma once

#include <memory>
#include <mutex>

#include "integrations/cephfs/ceph_file.h"
#include "yx/internal/range_locks.h"
#include "yx/stream.h"

namespace kelm::ceph {

/// The ranges that one stream has locked.
///
/// The cluster keeps one lock per byte and owner, and does not count how often it was asked for.
/// This table does, and passes on only what changes when a range comes or goes. It keeps the file
/// open, since its locks end with it. Safe for several threads.
class CephRangeLocks : public std::enable_shared_from_this<CephRangeLocks> {
public:
    explicit CephRangeLocks(std::shared_ptr<CephFile> file) : m_file(std::move(file)) {}
    CephRangeLocks(CephRangeLocks const&) = delete;
    CephRangeLocks& operator=(CephRangeLocks const&) = delete;
    ~CephRangeLocks() = default;

    struct Result {
        yx::P<yx::IStreamLock> token; ///< null on a failure, and then nothing has changed
        int error;                    ///< the negative `errno` value, 0 on success
    };

    /// Locks the range from `begin` to before `end`.
    Result lock(__int64 begin, __int64 end, bool exclusive);

private:
    class Lock;
    using RangeLocks = yx::detail::RangeLocks;

    int take(RangeLocks::Token token);
    void giveBack(RangeLocks::Token token) noexcept;
    int updateCluster(__int64 begin, __int64 end) noexcept;

    std::shared_ptr<CephFile> m_file;
    std::mutex m_mutex;
    RangeLocks m_ranges;
};

} // namespace kelm::ceph

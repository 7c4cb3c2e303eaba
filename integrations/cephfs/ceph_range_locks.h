#pragma once

#include <memory>

#include "integrations/cephfs/ceph_file.h"
#include "yx/internal/counted_range_locks.h"
#include "yx/stream.h"

namespace kelm::ceph {

/// The ranges that one stream has locked. It keeps the file open, since its locks end with it. Safe
/// for several threads.
class CephRangeLocks final : public yx::detail::CountedRangeLocks,
                             public std::enable_shared_from_this<CephRangeLocks> {
public:
    explicit CephRangeLocks(std::shared_ptr<CephFile> file) : m_file(std::move(file)) {}
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

    /// A journey to the metadata server; 0 or the negative `errno` value.
    int setLock(short type, __int64 begin, __int64 end) noexcept override {
        return m_file->setLock(type, begin, end);
    }

    std::shared_ptr<CephFile> m_file;
};

} // namespace kelm::ceph

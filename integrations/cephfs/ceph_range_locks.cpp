#include "integrations/cephfs/ceph_range_locks.h"

#include <optional>

#include <fcntl.h>

namespace kelm::ceph {

namespace {

using yx::detail::RangeLocks;

/// All ranges of a table belong to its one stream.
constexpr RangeLocks::Owner kStreamAsOwner = 0;

short getLockType(RangeLocks::Hold hold) {
    switch (hold) {
    case RangeLocks::Hold::Shared:
        return F_RDLCK;
    case RangeLocks::Hold::Exclusive:
        return F_WRLCK;
    case RangeLocks::Hold::None:
        break;
    }
    return F_UNLCK;
}

} // namespace

class CephRangeLocks::Lock : public yx::CBase, public virtual yx::IStreamLock {
public:
    explicit Lock(std::shared_ptr<CephRangeLocks> locks) : m_locks(std::move(locks)) {}
    Lock(Lock const&) = delete;
    Lock& operator=(Lock const&) = delete;

    ~Lock() override {
        if (m_token)
            m_locks->giveBack(*m_token);
    }

    void hold(RangeLocks::Token token) { m_token = token; }

private:
    std::shared_ptr<CephRangeLocks> m_locks;

    /// Absent until the range is locked.
    std::optional<RangeLocks::Token> m_token;
};

CephRangeLocks::Result CephRangeLocks::lock(__int64 begin, __int64 end, bool exclusive) {
    // Whatever needs memory comes before the range is locked.
    yx::P<Lock> const lock = yx::makeObject<Lock>(shared_from_this());
    std::lock_guard const guard(m_mutex);
    RangeLocks::Token const token = *m_ranges.tryLock({kStreamAsOwner, begin, end, exclusive});
    if (int const error = take(token); error != 0)
        return {nullptr, error};
    lock->hold(token);
    return {lock, 0};
}

int CephRangeLocks::take(RangeLocks::Token token) {
    RangeLocks::Range const range = *token;
    int const error = updateCluster(range.begin, range.end);
    if (error != 0) {
        m_ranges.unlock(token);
        // Some stretches may have been locked before another holder was met.
        updateCluster(range.begin, range.end);
    }
    return error;
}

void CephRangeLocks::giveBack(RangeLocks::Token token) noexcept {
    std::lock_guard const guard(m_mutex);
    RangeLocks::Range const range = *token;
    m_ranges.unlock(token);
    updateCluster(range.begin, range.end);
}

/// Makes the cluster's locks from `begin` to before `end` those of the table; 0 or the negative
/// `errno` value.
int CephRangeLocks::updateCluster(__int64 begin, __int64 end) noexcept {
    int firstError = 0;
    while (begin < end) {
        RangeLocks::Stretch stretch = m_ranges.getStretch(kStreamAsOwner, begin, end);
        // As few calls as can be: each is a journey to the metadata server.
        while (stretch.end < end) {
            RangeLocks::Stretch const next = m_ranges.getStretch(kStreamAsOwner, stretch.end, end);
            if (next.hold != stretch.hold)
                break;
            stretch.end = next.end;
        }
        int const error = m_file->setLock(getLockType(stretch.hold), begin, stretch.end);
        if (firstError == 0)
            firstError = error;
        begin = stretch.end;
    }
    return firstError;
}

} // namespace kelm::ceph

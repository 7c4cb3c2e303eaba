#include "integrations/cephfs/ceph_range_locks.h"

#include <optional>

namespace kelm::ceph {

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
    Held const held = hold(begin, end, exclusive);
    if (!held.token)
        return {nullptr, held.error};
    lock->hold(*held.token);
    return {lock, 0};
}

} // namespace kelm::ceph

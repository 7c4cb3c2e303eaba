#include "yx/internal/native_range_locks.h"

#include <cassert>
#include <cerrno>
#include <optional>

#include <fcntl.h>

namespace yx::detail {

class NativeRangeLocks::Lock : public CBase, public virtual IEndingLock {
public:
    explicit Lock(std::shared_ptr<NativeRangeLocks> locks) : m_locks(std::move(locks)) {}
    Lock(Lock const&) = delete;
    Lock& operator=(Lock const&) = delete;

    /// Gives the range back explicitly: a child process that shares the open file does not keep it.
    ~Lock() override {
        if (m_token)
            m_locks->giveBack(*m_token);
    }

    void hold(RangeLocks::Token token) { m_token = token; }

    void leaveToEndOfFile() override {
        if (m_token)
            m_locks->forget(*m_token);
        m_token.reset();
    }

private:
    std::shared_ptr<NativeRangeLocks> m_locks;

    /// Absent until the range is locked.
    std::optional<RangeLocks::Token> m_token;
};

NativeRangeLocks::~NativeRangeLocks() {
    assert(isEmpty());
}

NativeRangeLocks::Result NativeRangeLocks::lock(__int64 begin, __int64 end, bool exclusive) {
    // Whatever needs memory comes before the range is locked.
    P<Lock> const lock = makeObject<Lock>(shared_from_this());
    Held const held = hold(begin, end, exclusive);
    if (!held.token)
        return {nullptr, held.error};
    lock->hold(*held.token);
    return {lock, 0};
}

int NativeRangeLocks::setLock(short type, __int64 begin, __int64 end) noexcept {
    struct flock range {};
    range.l_type = type;
    range.l_whence = SEEK_SET;
    range.l_start = begin;
    range.l_len = end - begin;
    while (::fcntl(m_descriptor->get(), F_OFD_SETLK, &range) != 0) {
        if (errno != EINTR)
            return errno;
    }
    return 0;
}

} // namespace yx::detail

#include "yx/internal/native_range_locks.h"

#include <cassert>
#include <cerrno>
#include <optional>

#include <fcntl.h>

namespace yx::detail {

namespace {

/// All ranges of a table belong to its one open file.
constexpr RangeLocks::Owner kOwner = 0;

short getSystemType(RangeLocks::Hold hold) {
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

/// Sets or frees a lock of the open file; 0 or the `errno` value.
int setRangeLock(int descriptor, short type, __int64 begin, __int64 end) noexcept {
    struct flock range {};
    range.l_type = type;
    range.l_whence = SEEK_SET;
    range.l_start = begin;
    range.l_len = end - begin;
    while (::fcntl(descriptor, F_OFD_SETLK, &range) != 0) {
        if (errno != EINTR)
            return errno;
    }
    return 0;
}

} // namespace

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
    assert(m_ranges.isEmpty());
}

NativeRangeLocks::Result NativeRangeLocks::lock(__int64 begin, __int64 end, bool exclusive) {
    // Whatever needs memory comes before the range is locked.
    P<Lock> const lock = makeObject<Lock>(shared_from_this());
    std::lock_guard const guard(m_mutex);
    RangeLocks::Token const token = *m_ranges.tryLock({kOwner, begin, end, exclusive});
    if (int const error = take(token); error != 0)
        return {nullptr, error};
    lock->hold(token);
    return {lock, 0};
}

int NativeRangeLocks::take(RangeLocks::Token token) {
    RangeLocks::Range const range = *token;
    int const error = updateSystem(range.begin, range.end);
    if (error != 0) {
        m_ranges.unlock(token);
        // Some stretches may have been locked before another holder was met.
        updateSystem(range.begin, range.end);
    }
    return error;
}

void NativeRangeLocks::giveBack(RangeLocks::Token token) noexcept {
    std::lock_guard const guard(m_mutex);
    RangeLocks::Range const range = *token;
    m_ranges.unlock(token);
    updateSystem(range.begin, range.end);
}

void NativeRangeLocks::forget(RangeLocks::Token token) noexcept {
    std::lock_guard const guard(m_mutex);
    m_ranges.unlock(token);
}

/// Makes the system's locks from `begin` to before `end` those of the table; 0 or the `errno`
/// value.
int NativeRangeLocks::updateSystem(__int64 begin, __int64 end) const noexcept {
    int firstError = 0;
    while (begin < end) {
        RangeLocks::Stretch stretch = m_ranges.getStretch(kOwner, begin, end);
        // As few calls as can be: others may look in between.
        while (stretch.end < end) {
            RangeLocks::Stretch const next = m_ranges.getStretch(kOwner, stretch.end, end);
            if (next.hold != stretch.hold)
                break;
            stretch.end = next.end;
        }
        int const error =
            setRangeLock(m_descriptor->get(), getSystemType(stretch.hold), begin, stretch.end);
        if (firstError == 0)
            firstError = error;
        begin = stretch.end;
    }
    return firstError;
}

} // namespace yx::detail

#include "yx/internal/counted_range_locks.h"

#include <fcntl.h>

namespace yx::detail {

namespace {

/// All ranges of a table belong to its one open file.
constexpr RangeLocks::Owner kOwner = 0;

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

CountedRangeLocks::Held CountedRangeLocks::hold(__int64 begin, __int64 end, bool exclusive) {
    std::lock_guard const guard(m_mutex);
    RangeLocks::Token const token = *m_ranges.tryLock({kOwner, begin, end, exclusive});
    int const error = pass(begin, end);
    if (error == 0)
        return {token, 0};
    m_ranges.unlock(token);
    // Some stretches may have been locked before another holder was met.
    pass(begin, end);
    return {std::nullopt, error};
}

void CountedRangeLocks::giveBack(RangeLocks::Token token) noexcept {
    std::lock_guard const guard(m_mutex);
    RangeLocks::Range const range = *token;
    m_ranges.unlock(token);
    pass(range.begin, range.end);
}

void CountedRangeLocks::forget(RangeLocks::Token token) noexcept {
    std::lock_guard const guard(m_mutex);
    m_ranges.unlock(token);
}

/// Makes the locks from `begin` to before `end` those of the table; 0 or the first failure.
int CountedRangeLocks::pass(__int64 begin, __int64 end) noexcept {
    int firstError = 0;
    while (begin < end) {
        RangeLocks::Stretch stretch = m_ranges.getStretch(kOwner, begin, end);
        // As few calls as can be: others may look in between, and each may be a journey.
        while (stretch.end < end) {
            RangeLocks::Stretch const next = m_ranges.getStretch(kOwner, stretch.end, end);
            if (next.hold != stretch.hold)
                break;
            stretch.end = next.end;
        }
        int const error = setLock(getLockType(stretch.hold), begin, stretch.end);
        if (firstError == 0)
            firstError = error;
        begin = stretch.end;
    }
    return firstError;
}

} // namespace yx::detail

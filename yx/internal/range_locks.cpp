#include "yx/internal/range_locks.h"

#include <algorithm>
#include <cassert>

namespace yx::detail {

namespace {

bool conflict(RangeLocks::Range const& one, RangeLocks::Range const& other) {
    return one.owner != other.owner && one.overlaps(other) && (one.exclusive || other.exclusive);
}

} // namespace

std::optional<RangeLocks::Token> RangeLocks::tryLock(Range const& range) {
    assert(range.begin >= 0 && range.begin < range.end);
    bool const blocked = std::ranges::any_of(
        m_ranges, [&range](Range const& held) { return conflict(held, range); });
    if (blocked)
        return std::nullopt;
    m_ranges.push_back(range);
    return std::prev(m_ranges.end());
}

void RangeLocks::unlock(Token token) noexcept {
    assert(
        std::ranges::none_of(m_ranges, [&](Range const& held) { return conflict(held, *token); }));
    m_ranges.erase(token);
}

RangeLocks::Stretch RangeLocks::getStretch(Owner owner, __int64 position,
                                           __int64 end) const noexcept {
    assert(position < end);
    Stretch stretch{Hold::None, end};
    for (Range const& range : m_ranges) {
        if (range.owner != owner)
            continue;
        if (range.holds(position)) {
            stretch.hold = std::max(stretch.hold, range.exclusive ? Hold::Exclusive : Hold::Shared);
            stretch.end = std::min(stretch.end, range.end);
        } else if (range.begin > position) {
            stretch.end = std::min(stretch.end, range.begin);
        }
    }
    assert(stretch.end > position);
    return stretch;
}

} // namespace yx::detail

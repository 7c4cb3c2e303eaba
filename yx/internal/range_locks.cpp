#include "yx/internal/range_locks.h"

#include <algorithm>

namespace yx::detail {

bool RangeLocks::tryLock(Owner owner, __int64 begin, __int64 end, bool exclusive) {
    bool const blocked = std::any_of(m_ranges.begin(), m_ranges.end(), [&](Range const& range) {
        return range.owner != owner && range.overlaps(begin, end) && (exclusive || range.exclusive);
    });
    if (blocked)
        return false;
    unlock(owner, begin, end);
    m_ranges.push_back({owner, begin, end, exclusive});
    return true;
}

void RangeLocks::unlock(Owner owner, __int64 begin, __int64 end) {
    std::vector<Range> kept;
    for (Range const& range : m_ranges) {
        if (range.owner != owner || !range.overlaps(begin, end)) {
            kept.push_back(range);
            continue;
        }
        if (range.begin < begin)
            kept.push_back({owner, range.begin, begin, range.exclusive});
        if (end < range.end)
            kept.push_back({owner, end, range.end, range.exclusive});
    }
    m_ranges = std::move(kept);
}

} // namespace yx::detail

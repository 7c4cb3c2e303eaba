#pragma once

#include <vector>

#include "yx/base.h"

namespace yx::detail {

/// The locked byte ranges of one file, by the rules of POSIX record locks that belong to open
/// files. Internal.
///
/// Ranges of one owner never conflict: a new lock replaces what its owner holds of the range, and
/// an unlock frees all of it. Ranges reach from `begin` to before `end`.
class RangeLocks {
public:
    using Owner = unsigned long long;

    /// Locks, unless another owner is in the way: then the answer is false and nothing changes.
    bool tryLock(Owner owner, __int64 begin, __int64 end, bool exclusive);

    void unlock(Owner owner, __int64 begin, __int64 end);

private:
    struct Range {
        Owner owner;
        __int64 begin;
        __int64 end;
        bool exclusive;

        bool overlaps(__int64 otherBegin, __int64 otherEnd) const {
            return begin < otherEnd && otherBegin < end;
        }
    };

    std::vector<Range> m_ranges;
};

} // namespace yx::detail

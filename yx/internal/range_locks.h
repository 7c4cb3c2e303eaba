#pragma once

#include <list>
#include <optional>

#include "yx/base.h"

namespace yx::detail {

/// The locked byte ranges of one file, each held until its token is given back. Internal.
///
/// Ranges of different owners conflict where they overlap and one of them is exclusive. Ranges of
/// one owner never conflict, however they overlap: a byte is locked for an owner as long as any of
/// its ranges covers it, exclusively if any of these is exclusive. Ranges reach from `begin` to
/// before `end` and are never empty.
class RangeLocks {
public:
    using Owner = unsigned long long;

    struct Range {
        Owner owner;
        __int64 begin;
        __int64 end;
        bool exclusive;

        bool holds(__int64 position) const { return begin <= position && position < end; }
        bool overlaps(Range const& other) const { return begin < other.end && other.begin < end; }
    };

    /// Stands for a range that is held.
    using Token = std::list<Range>::iterator;

    /// How an owner holds the bytes from a position on.
    enum class Hold { None, Shared, Exclusive };
    struct Stretch {
        Hold hold;
        __int64 end; ///< where it ends, or where something may change
    };

    /// Locks, unless another owner is in the way: then there is no token, and nothing changes.
    std::optional<Token> tryLock(Range const& range);

    /// Gives a range back, and the token with it. Needs no memory.
    void unlock(Token token) noexcept;

    /// How `owner` holds the bytes from `position` on, up to `end` at most. Needs no memory.
    Stretch getStretch(Owner owner, __int64 position, __int64 end) const noexcept;

    bool isEmpty() const { return m_ranges.empty(); }

private:
    std::list<Range> m_ranges;
};

} // namespace yx::detail

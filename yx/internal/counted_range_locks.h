#pragma once

#include <mutex>
#include <optional>

#include "yx/internal/range_locks.h"

namespace yx::detail {

/// The ranges that one open file has locked, where whoever keeps the locks, such as the operating
/// system, has one lock per byte and open file, and does not count how often it was asked for.
/// Internal.
///
/// This table counts, and passes on only what changes when a range comes or goes. Safe for several
/// threads.
class CountedRangeLocks {
public:
    CountedRangeLocks(CountedRangeLocks const&) = delete;
    CountedRangeLocks& operator=(CountedRangeLocks const&) = delete;

protected:
    /// A range that was asked for.
    struct Held {
        std::optional<RangeLocks::Token> token; ///< absent on a failure
        int error;                              ///< what `setLock` has returned, 0 on success
    };

    CountedRangeLocks() = default;
    ~CountedRangeLocks() = default;

    /// Locks the range from `begin` to before `end`. On a failure nothing has changed; throws
    /// `std::bad_alloc`, and nothing has changed then either.
    Held hold(__int64 begin, __int64 end, bool exclusive);

    /// Gives a range back, and the token with it.
    void giveBack(RangeLocks::Token token) noexcept;

    /// The same, but the lock stays where it is kept.
    void forget(RangeLocks::Token token) noexcept;

    bool isEmpty() const { return m_ranges.isEmpty(); }

private:
    /// Makes bytes locked as `type` says, which is `F_RDLCK`, `F_WRLCK` or `F_UNLCK`; 0 or a value
    /// that tells of the failure.
    virtual int setLock(short type, __int64 begin, __int64 end) noexcept = 0;

    int pass(__int64 begin, __int64 end) noexcept;

    std::mutex m_mutex;
    RangeLocks m_ranges;
};

} // namespace yx::detail

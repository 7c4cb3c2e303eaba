#pragma once

#include <new>
#include <string>

#include <gtest/gtest.h>

#include "tests/support/allocation_failure.h"
#include "yx/error.h"

namespace test_support {

/// Lets each allocation of an operation fail once, each time on a subject of its own: the error
/// must come out, and the operation done again must leave what it leaves where nothing has failed.
///
/// `make` makes a subject, `run` is the operation, and `describe` gives all that counts of a
/// subject.
template <class Make, class Run, class Describe>
void failEachAllocation(char const* name, Make const& make, Run const& run,
                        Describe const& describe) {
    SCOPED_TRACE(name);
    constexpr int kMost = 100000;
    auto expected = make();
    run(expected);
    auto const description = describe(expected);
    for (int number = 1; number < kMost; ++number) {
        auto subject = make();
        bool hasHit = false;
        bool hasFailed = false;
        {
            AllocationFailure const failure(number);
            try {
                run(subject);
            } catch (std::bad_alloc const&) {
                hasFailed = true;
            } catch (yx::CIOError const&) {
                // A file in memory says that there is no room.
                hasFailed = true;
            }
            hasHit = failure.hasHappened();
        }
        ASSERT_EQ(hasHit, hasFailed) << "allocation " << number;
        if (hasFailed)
            run(subject);
        ASSERT_EQ(describe(subject), description) << "allocation " << number;
        if (!hasHit)
            return;
    }
    FAIL() << "allocates without end";
}

} // namespace test_support

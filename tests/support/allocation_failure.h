#pragma once

namespace test_support {

/// Makes one allocation of this thread fail with `std::bad_alloc`, in every library of the process,
/// while the object lives; one at a time. Whoever uses it replaces the program's allocation
/// functions.
///
/// To let each allocation of some work fail once: run it for `nth` 1, 2, ... until `hasHappened` is
/// false.
class AllocationFailure {
public:
    /// The `nth` allocation from now on fails, counted from 1.
    explicit AllocationFailure(long long nth);
    AllocationFailure(AllocationFailure const&) = delete;
    AllocationFailure& operator=(AllocationFailure const&) = delete;

    /// No allocation fails from then on.
    ~AllocationFailure();

    bool hasHappened() const;
};

} // namespace test_support

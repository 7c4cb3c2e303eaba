#pragma once

namespace test_support {

/// Counts what this thread gets from `operator new`, in every library of the process, while the
/// object lives. Whoever uses it replaces the program's allocation functions.
class AllocationCounter {
public:
    AllocationCounter();
    AllocationCounter(AllocationCounter const&) = delete;
    AllocationCounter& operator=(AllocationCounter const&) = delete;
    ~AllocationCounter();

    long long count() const;

private:
    long long m_start;
};

} // namespace test_support

#include "tests/support/allocation_counter.h"

#include <cstdlib>
#include <new>

#include "tests/support/allocation_failure.h"

namespace {

thread_local long long allocationCount = 0;

/// The allocation that fails, by its count; 0 for none.
thread_local long long failingAllocation = 0;

void* allocate(std::size_t sizeBytes) noexcept {
    ++allocationCount;
    if (allocationCount == failingAllocation)
        return nullptr;
    return std::malloc(sizeBytes > 0 ? sizeBytes : 1);
}

void* allocateOrThrow(std::size_t sizeBytes) {
    if (void* const memory = allocate(sizeBytes))
        return memory;
    throw std::bad_alloc();
}

} // namespace

// All forms but the aligned ones, so that none of them meets a partner that is not replaced.

void* operator new(std::size_t sizeBytes) {
    return allocateOrThrow(sizeBytes);
}

void* operator new[](std::size_t sizeBytes) {
    return allocateOrThrow(sizeBytes);
}

void* operator new(std::size_t sizeBytes, std::nothrow_t const&) noexcept {
    return allocate(sizeBytes);
}

void* operator new[](std::size_t sizeBytes, std::nothrow_t const&) noexcept {
    return allocate(sizeBytes);
}

void operator delete(void* memory) noexcept {
    std::free(memory);
}

void operator delete[](void* memory) noexcept {
    std::free(memory);
}

void operator delete(void* memory, std::size_t) noexcept {
    std::free(memory);
}

void operator delete[](void* memory, std::size_t) noexcept {
    std::free(memory);
}

void operator delete(void* memory, std::nothrow_t const&) noexcept {
    std::free(memory);
}

void operator delete[](void* memory, std::nothrow_t const&) noexcept {
    std::free(memory);
}

namespace test_support {

AllocationCounter::AllocationCounter() : m_start(allocationCount) {}

AllocationCounter::~AllocationCounter() = default;

long long AllocationCounter::count() const {
    return allocationCount - m_start;
}

AllocationFailure::AllocationFailure(long long nth) {
    failingAllocation = allocationCount + nth;
}

AllocationFailure::~AllocationFailure() {
    failingAllocation = 0;
}

bool AllocationFailure::hasHappened() const {
    return allocationCount >= failingAllocation;
}

} // namespace test_support

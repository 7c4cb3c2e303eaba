#pragma once

#include <cstddef>

#include "tests/support/bytes.h"

/// Bytes that end, or begin, where memory ends: touching the byte behind, or before them, kills the
/// program. For code in assembly, which no sanitizer sees.
class GuardedBytes {
public:
    enum class Edge { Begin, End };

    /// Throws `std::bad_alloc`.
    GuardedBytes(std::size_t sizeBytes, Edge edge);
    GuardedBytes(test_support::Bytes const& bytes, Edge edge);
    GuardedBytes(GuardedBytes const&) = delete;
    GuardedBytes& operator=(GuardedBytes const&) = delete;
    ~GuardedBytes();

    unsigned char* data() const { return m_data; }
    int size() const { return static_cast<int>(m_sizeBytes); }

    /// A copy of the first bytes.
    test_support::Bytes first(int count) const;

private:
    std::size_t m_sizeBytes;
    std::size_t m_mappedBytes;
    void* m_mapped;
    unsigned char* m_data;
};

#include "tests/compressors/guarded_bytes.h"

#include <algorithm>
#include <new>

#include <sys/mman.h>
#include <unistd.h>

GuardedBytes::GuardedBytes(std::size_t sizeBytes, Edge edge) : m_sizeBytes(sizeBytes) {
    auto const pageBytes = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
    std::size_t const innerBytes = (sizeBytes + pageBytes - 1) / pageBytes * pageBytes;
    m_mappedBytes = innerBytes + 2 * pageBytes;
    m_mapped = ::mmap(nullptr, m_mappedBytes, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (m_mapped == MAP_FAILED)
        throw std::bad_alloc();
    unsigned char* const inner = static_cast<unsigned char*>(m_mapped) + pageBytes;
    if (innerBytes > 0 && ::mprotect(inner, innerBytes, PROT_READ | PROT_WRITE) != 0) {
        ::munmap(m_mapped, m_mappedBytes);
        throw std::bad_alloc();
    }
    m_data = edge == Edge::Begin ? inner : inner + innerBytes - sizeBytes;
}

GuardedBytes::GuardedBytes(test_support::Bytes const& bytes, Edge edge)
    : GuardedBytes(bytes.size(), edge) {
    std::copy(bytes.begin(), bytes.end(), m_data);
}

GuardedBytes::~GuardedBytes() {
    ::munmap(m_mapped, m_mappedBytes);
}

test_support::Bytes GuardedBytes::first(int count) const {
    return test_support::Bytes(m_data, m_data + count);
}

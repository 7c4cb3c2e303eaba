#include "yx/memory.h"

#include <cstring>

namespace yx {

void copyMemory(void* target, void const* source, std::size_t sizeBytes) {
    if (sizeBytes > 0)
        std::memcpy(target, source, sizeBytes);
}

void initMemory(void* target, int value, std::size_t sizeBytes) {
    if (sizeBytes > 0)
        std::memset(target, value, sizeBytes);
#if defined(__GNUC__)
    // The store is observed here, so not even link-time optimisation can take it for a dead one.
    __asm__ volatile("" : : "r"(target) : "memory");
#endif
}

bool isAllZero(void const* data, std::size_t sizeBytes) {
    auto const* bytes = static_cast<unsigned char const*>(data);
    constexpr std::size_t kProbeSizeBytes = 16;
    if (sizeBytes <= kProbeSizeBytes) {
        for (std::size_t i = 0; i < sizeBytes; ++i) {
            if (bytes[i] != 0)
                return false;
        }
        return true;
    }
    // Once the first bytes are known to be zero, the range is zero if it equals itself shifted by
    // as many: that hands the scan to the C library's vectorised comparison.
    return isAllZero(bytes, kProbeSizeBytes) &&
           std::memcmp(bytes, bytes + kProbeSizeBytes, sizeBytes - kProbeSizeBytes) == 0;
}

} // namespace yx

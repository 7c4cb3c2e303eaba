#pragma once

#include <cstddef>
#include <memory>
#include <new>

#include "yx/memory.h"

namespace mzu {

/// Compresses for a coder that is only sure to succeed with `sufficientBytes` of room, into a
/// target that may have less. `compress(target, targetSizeBytes)` gives the size of the stream, or
/// 0 for failure. Returns the same; also 0 if the stream does not fit or memory is short.
template <class Compress>
std::size_t compressIntoAnyTarget(std::size_t sufficientBytes, void* target,
                                  std::size_t targetSizeBytes, Compress const& compress) {
    if (targetSizeBytes >= sufficientBytes)
        return compress(target, targetSizeBytes);
    std::unique_ptr<unsigned char[]> const result(
        new (std::nothrow) unsigned char[sufficientBytes]);
    if (!result)
        return 0;
    std::size_t const sizeBytes = compress(result.get(), sufficientBytes);
    if (sizeBytes > targetSizeBytes)
        return 0;
    yx::copyMemory(target, result.get(), sizeBytes);
    return sizeBytes;
}

} // namespace mzu

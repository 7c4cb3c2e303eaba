#pragma once

#include <limits>

#include "yx/base.h"

namespace kelm {

/// The byte position of a grain. If it exceeds 64 bits, the result is the largest or smallest
/// number, which every seek refuses.
inline __int64 grainPositionBytes(__int64 grainIndex, __int64 grainSizeBytes) {
    using Limits = std::numeric_limits<__int64>;
    if (grainIndex > Limits::max() / grainSizeBytes)
        return Limits::max();
    if (grainIndex < Limits::min() / grainSizeBytes)
        return Limits::min();
    return grainIndex * grainSizeBytes;
}

/// The index in the whole disk of an extent's grain. If it exceeds 64 bits, the result is the
/// largest number, which every grain and provider refuses.
inline __int64 diskGrainIndexOf(__int64 startGrainIndex, __int64 extentGrainIndex) {
    constexpr __int64 kMax = std::numeric_limits<__int64>::max();
    return startGrainIndex > kMax - extentGrainIndex ? kMax : startGrainIndex + extentGrainIndex;
}

} // namespace kelm

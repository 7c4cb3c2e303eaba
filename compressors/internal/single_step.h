#pragma once

#include <algorithm>
#include <limits>

#include "yx/error.h"

/// What the compressors of this folder have in common, for their source files only.
namespace single_step {

inline constexpr int kDefaultLevel = 6;
inline constexpr int kMaxLevel = 9;

/// The level from 0 to 9 that a caller's level stands for.
inline int effectiveLevel(int level) {
    return level < 0 ? kDefaultLevel : std::min(level, kMaxLevel);
}

/// Refuses sizes below 0, and null for more than 0 bytes.
inline void checkArguments(char const* function, void const* source, int sourceSizeBytes,
                           void const* target, int targetSizeBytes) {
    auto const fail = [function](yx::String const& message) {
        throw yx::CInvalidArgError(function, message, yx::CProps());
    };

    if (sourceSizeBytes < 0)
        fail("Invalid source size: " + yx::toString(sourceSizeBytes) + " bytes");
    if (targetSizeBytes < 0)
        fail("Invalid target size: " + yx::toString(targetSizeBytes) + " bytes");
    if (!source && sourceSizeBytes > 0)
        fail("No source");
    if (!target && targetSizeBytes > 0)
        fail("No target");
}

/// The upper bound for a source, from `getBound`, which takes and gives an unsigned size.
template <class GetBound>
int sizeUpperBound(char const* function, int sourceSizeBytes, GetBound getBound) {
    if (sourceSizeBytes < 0)
        throw yx::CInvalidArgError(
            function, "Invalid source size: " + yx::toString(sourceSizeBytes) + " bytes",
            yx::CProps());
    auto const boundBytes = getBound(static_cast<unsigned int>(sourceSizeBytes));
    if (boundBytes > static_cast<unsigned int>(std::numeric_limits<int>::max()))
        throw yx::CInvalidArgError(
            function,
            "Source is too large to compress: " + yx::toString(sourceSizeBytes) + " bytes",
            yx::CProps());
    return static_cast<int>(boundBytes);
}

/// The end of a decompression that failed. A decoder that runs past its target cannot always know
/// whether the stream is damaged or the target too small, so there is one message for both.
[[noreturn]] inline void throwCorruptData(int sourceSizeBytes, int targetSizeBytes) {
    throw yx::CIOError(yx::CIOError::CorruptData,
                       "Compressed data is corrupt, incomplete or larger than its target.",
                       yx::CProps()
                           .add("sourceSize", yx::toString(sourceSizeBytes))
                           .add("targetSize", yx::toString(targetSizeBytes)),
                       nullptr);
}

/// The end of a decompression whose library could not get memory for its state.
[[noreturn]] inline void throwNoMemory() {
    throw yx::CError("Not enough memory to decompress.", "", -1, yx::CProps(), nullptr);
}

} // namespace single_step

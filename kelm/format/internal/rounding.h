#pragma once

#include "kelm/format/constants.h"

namespace kelm {

/// `value` rounded up to a multiple of `unit`, which is above 0. A negative value may come out one
/// `unit` higher still.
constexpr __int64 roundUpToMultiple(__int64 value, __int64 unit) {
    return (value + unit - 1) / unit * unit;
}

/// The sectors that so many bytes take.
constexpr __int64 roundUpToSectors(__int64 sizeBytes) {
    return (sizeBytes + kSectorSizeBytes - 1) / kSectorSizeBytes;
}

} // namespace kelm

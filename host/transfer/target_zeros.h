#pragma once

#include "yx/base.h"

namespace kelm::host {

/// What becomes of the zeros of an image in a file or on a block device.
enum class ZeroPolicy {
    /// Holes in a file. On a device they are given back where it can do that, and written only where
    /// it has something else: see `DeviceZeroing`.
    Punch,

    /// Nothing: what the target has there stays. Right only for a target that is known to read as
    /// zeros, such as a new thin volume.
    Skip,

    /// They are written as all other bytes.
    Write
};

/// What became of the zeros of an image.
struct TargetZeros {
    /// Bytes that take no space in the target now.
    __int64 punchedBytes = 0;

    /// Bytes that were left as the target had them.
    __int64 leftBytes = 0;

    /// Bytes that were written.
    __int64 writtenBytes = 0;
};

} // namespace kelm::host

#pragma once

#include "yx/base.h"

namespace kelm::host {

/// What the descriptor and the first extent say about an extent.
struct ExtentPlace {
    /// The extent's share of the disk.
    __int64 sizeSectors = 0;

    /// The index in the disk of the extent's first grain.
    __int64 startGrainIndex = 0;

    /// What the extents of one disk have in common.
    __int64 grainSizeSectors = 0;
    bool compressed = false;
};

} // namespace kelm::host

#pragma once

#include "host/disk/disk_extent.h"
#include "kelm/format/sparse_extent_header.h"

namespace kelm::host {

/// What a header whose sizes are possible says about its extent.
struct ExtentShape {
    /// The header as it was read.
    CVMDKSparseExtentHeader header;

    /// The size of a grain.
    __int64 grainSizeSectors = 0;

    /// The grains of the extent, a short last one included.
    __int64 grainCount = 0;

    /// The grain tables that these take.
    __int64 tableCount = 0;

    /// Whether the grains are compressed records.
    bool compressed = false;

    /// What the disk says about the same extent.
    DiskExtent extent;
};

} // namespace kelm::host

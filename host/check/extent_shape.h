#pragma once

#include "host/disk/disk_extent.h"
#include "kelm/format/sparse_extent_header.h"

namespace kelm::host {

/// What a header whose sizes are possible says about its extent.
struct ExtentShape {
    CVMDKSparseExtentHeader header;
    __int64 grainSizeSectors = 0;
    __int64 grainCount = 0;
    __int64 tableCount = 0;
    bool compressed = false;

    /// What the disk says about the same extent.
    DiskExtent extent;
};

} // namespace kelm::host

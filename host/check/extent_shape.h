#pragma once

#include <algorithm>

#include "host/check/checked_thing.h"
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

    /// A grain of the extent as a grain of the disk. It may lie behind the extent's end.
    CheckedThing grainAt(__int64 grain) const {
        return {CheckedThing::Kind::Grain, grain + extent.getStartGrainIndex(),
                bytesOfGrains(grain, 1)};
    }

    /// A grain table of the extent, with the bytes of its grains.
    CheckedThing tableAt(__int64 table) const {
        return {CheckedThing::Kind::Table, table,
                bytesOfGrains(table * kGrainTableEntryCount, kGrainTableEntryCount)};
    }

private:
    /// No overflow, since the header's sizes are possible.
    ByteRange bytesOfGrains(__int64 first, __int64 count) const {
        __int64 const grainSizeBytes = grainSizeSectors * kSectorSizeBytes;
        __int64 const sizeBytes = extent.getSizeBytes();
        return {extent.startBytes + std::min(sizeBytes, first * grainSizeBytes),
                extent.startBytes + std::min(sizeBytes, (first + count) * grainSizeBytes)};
    }
};

} // namespace kelm::host

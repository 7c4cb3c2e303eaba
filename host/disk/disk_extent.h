#pragma once

#include "kelm/format/constants.h"
#include "yx/uri.h"

namespace kelm::host {

/// A stretch of a disk, the file that holds it, and the form in which grains are stored there.
struct DiskExtent {
    /// Normalised.
    yx::CURI uri;

    /// The stretch, in bytes of the disk.
    __int64 startBytes = 0;
    __int64 endBytes = 0;

    /// What the first extent of the disk says of all its extents. The file may differ.
    __int64 grainSizeBytes = __int64{kNewDiskGrainSizeSectors} * kSectorSizeBytes;
    bool isCompressed = false;

    /// The length of the stretch.
    __int64 getSizeBytes() const { return endBytes - startBytes; }

    /// `getSizeBytes` in sectors.
    __int64 getSizeSectors() const { return getSizeBytes() / kSectorSizeBytes; }

    /// `grainSizeBytes` in sectors.
    __int64 getGrainSizeSectors() const { return grainSizeBytes / kSectorSizeBytes; }

    /// The index in the disk of the extent's first grain. Where an extent starts within a grain of
    /// the disk, that is the next index.
    __int64 getStartGrainIndex() const {
        return (startBytes + grainSizeBytes - 1) / grainSizeBytes;
    }

    /// Whether the extent holds any of the `bytes` bytes from `positionBytes` on.
    bool overlaps(__int64 positionBytes, __int64 bytes) const {
        return endBytes > positionBytes && startBytes < positionBytes + bytes;
    }
};

} // namespace kelm::host

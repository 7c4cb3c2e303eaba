#pragma once

#include "kelm/format/constants.h"
#include "yx/base.h"

namespace kelm {

/// The file size limit of a disk in one file.
constexpr __int64 kUnlimitedFileSize = -1;

/// How a new disk is cut into extents so that no file exceeds its limit.
struct ExtentSizing {
    /// Payload of the largest extent.
    __int64 maxExtentPayloadBytes;
    __int64 grainsPerExtent;

    /// The descriptor area.
    __int64 descriptorSectors;

    /// Whether the descriptor lies in the first extent's file.
    bool embedded;
};

/// The grain size of new disks, in bytes, by which they are sized.
constexpr __int64 kNewDiskGrainSizeBytes = __int64{kNewDiskGrainSizeSectors} * kSectorSizeBytes;

/// Sizes the extents of a disk of `sizeBytes` bytes. `fileSizeLimit` is in bytes or
/// `kUnlimitedFileSize`; `mainFileNameBytes` is the UTF-8 length of the main file's name, which the
/// extents' names are about as long as. Throws `yx::CError` if the limit leaves no room for a
/// grain, or if the disk would need more extent lines than the descriptor may have.
ExtentSizing sizeExtents(__int64 sizeBytes, bool compressed, __int64 fileSizeLimit,
                         int mainFileNameBytes);

} // namespace kelm

#pragma once

#include "yx/base.h"

namespace kelm::host {

/// Where the library puts the metadata of an extent file that it makes. All of it follows from four
/// numbers, so that a header or a directory that was lost can be made again. Sectors of the file;
/// files of other software may have any other order.
struct RegularPlaces {
    /// The directories. The last one is that of the slot sizes, 0 in a plain extent.
    __int64 redundantDirectorySector = 0;
    __int64 directorySector = 0;
    __int64 slotSizeDirectorySector = 0;

    /// The first table of each; the others follow, `strideSectors` apart, or
    /// `slotSizeStrideSectors`.
    __int64 redundantTableSector = 0;
    __int64 tableSector = 0;
    __int64 slotSizeTableSector = 0;
    __int64 strideSectors = 0;
    __int64 slotSizeStrideSectors = 0;

    /// Behind the last table, rounded up to whole grains: the header's overhead.
    __int64 overheadSectors = 0;
};

/// What the places of an extent's metadata depend on.
struct RegularExtent {
    /// At least 0, and so few that a file has room for them.
    __int64 tableCount = 0;

    /// Compressed extents have markers before all metadata.
    bool isCompressed = false;

    /// The sector behind the header and the descriptor.
    __int64 firstSector = 1;

    /// At least 1.
    __int64 grainSizeSectors = 1;
};

/// Computes the places. No sum overflows for sizes that an extent file can have.
RegularPlaces calcRegularPlaces(RegularExtent const& extent);

} // namespace kelm::host

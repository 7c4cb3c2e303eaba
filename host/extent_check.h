#pragma once

#include <functional>
#include <string>

#include "host/cancel.h"
#include "yx/stream.h"

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

/// Checks the structure of a sparse extent file without decoding its grains: the header, the tables
/// against their redundant copies, that the slots of the grains lie behind the metadata, inside the
/// file and apart from each other, and in a compressed extent that the records name their grain and
/// fit their slots and that the trail closes the file. `report` gets a sentence for each finding; a
/// stretch that cannot be read is one. What `report` throws passes.
///
/// Takes at most some 32 MiB of memory. The tables of a file of more than 128 GiB are read once for
/// each 128 GiB. `cancel` may be null.
void checkExtent(yx::IIOStream& stream, ExtentPlace const& place, CancelFlag const* cancel,
                 std::function<void(std::string const&)> const& report);

} // namespace kelm::host

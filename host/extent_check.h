#pragma once

#include <functional>
#include <string>

#include "host/cancel.h"
#include "yx/stream.h"

namespace kelm::host {

/// What the descriptor says about an extent.
struct ExtentPlace {
    __int64 sizeSectors = 0;

    /// The index in the disk of the extent's first grain.
    __int64 startGrainIndex = 0;
};

/// Checks the structure of a sparse extent file without decoding its grains: the header, the tables
/// against their redundant copies, that the slots of the grains lie behind the metadata, inside the
/// file and apart from each other, and in a compressed extent that the records name their grain and
/// fit their slots and that the trail closes the file. `report` gets a sentence for each finding.
///
/// A header that cannot be read is thrown, as are the errors of the stream. `cancel` may be null.
void checkExtent(yx::IIOStream& stream, ExtentPlace const& place, CancelFlag const* cancel,
                 std::function<void(std::string const&)> const& report);

} // namespace kelm::host

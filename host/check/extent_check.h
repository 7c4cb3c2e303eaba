#pragma once

#include <functional>
#include <string>

#include "host/disk/extent_place.h"
#include "host/system/cancel.h"
#include "yx/stream.h"

namespace kelm::host {

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

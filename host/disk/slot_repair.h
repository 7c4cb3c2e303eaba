#pragma once

#include "host/disk/disk_extent.h"
#include "yx/stream.h"

namespace kelm::host {

/// Puts right what a power cut between the tables of a compressed extent can leave. A grain's place
/// and the size of its slot stand in two tables, which a flush writes one after the other, so one
/// may be new and the other old:
///
/// - A place without a slot, which cannot be opened at all, gets a slot of its record's size.
/// - A slot that reaches into the next grain or behind the end, where a larger grain written to its
///   old place would overwrite others, is cut down to what lies before them.
///
/// Grains whose records do not fit what is left are damaged otherwise and stay as they are. Returns
/// how many slots were changed; with any, the changes are on the device. An extent that is not
/// compressed has nothing to repair. The stream is open for writing, and nobody else uses the file.
///
/// Takes at most some 36 MiB of memory. The tables are read once where the grains lie in their
/// order, and else twice more for each 128 GiB of the file.
__int64 repairSlots(yx::IIOStream& stream, DiskExtent const& extent);

} // namespace kelm::host

#pragma once

#include "host/disk/safe_disk.h"
#include "host/system/cancel.h"

namespace kelm::host {

/// Asks the file systems on which the files of a child disk lie whether they have room for copies
/// of all grains that only its parents hold, and throws `yx::CIOError` `NoSpace` if one has not:
/// "There is no room for what the parents hold." with "uri", the folder of the first file there,
/// "neededBytes" and "freeBytes".
///
/// Counted are whole grains in a plain disk. In a compressed one a record counts as much as it
/// takes in the parent; what must be compressed first counts a sector, since nobody knows more, and
/// so the device may still run full. Files of other URIs than "file:" are passed over. Reads all
/// tables of the chain once. `cancel` may be null.
void verifyRoomForParentsGrains(SafeDisk& disk, CancelFlag const* cancel);

} // namespace kelm::host

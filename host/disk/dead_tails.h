#pragma once

#include "host/disk/safe_disk.h"
#include "host/system/cancel.h"

namespace kelm::host {

/// Takes away what a program left that was killed while it gave the disk new grains: grains behind
/// the last one that a table names, which nothing refers to, and redundant tables that lag behind
/// their main ones. Work that is done again so takes no more space than work done at once. Each
/// file that was shortened is a warning in the log, with the number of bytes.
///
/// A damaged table is an error as in `verifyTables`, before anything is changed: its grains must
/// not pass for dead space. A file whose tables do not all lie before its grains, as those of other
/// software may, keeps its length.
///
/// `disk` is open for writing and has no unflushed changes. Returns whether a file was changed; the
/// disk object is then only good for closing, and what was changed is on the device. A kill or a
/// power cut in the middle leaves what was there before, or less of it.
///
/// Reads the tables once more than `verifyTables`. `cancel` may be null.
bool dropDeadTails(SafeDisk& disk, CancelFlag const* cancel);

} // namespace kelm::host

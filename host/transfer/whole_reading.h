#pragma once

#include "host/disk/safe_disk.h"

namespace kelm::host {

/// Comes first on every road that reads a whole disk: exports, conversions, comparisons, imports
/// over a parent, copies of what parents hold, and serving. What was damaged must not pass for
/// zeros, or for another disk, so this looks at the disk and its parents before the first byte is
/// handed out:
///
/// - A damaged grain table is an error; see `verifyTables`.
/// - A descriptor that differs from its checksum is logged as a warning, one for each disk. It may
///   be damaged, but other software may also rightly have edited it, so it refuses nothing.
///
/// From then on a disk that is only read looks the holders of its grains up in one table
/// (`SafeDisk::mergeChain`).
///
/// Takes far less than 1 % of the time of an export. `cancel` may be null.
void beginWholeReading(SafeDisk& disk, CancelFlag const* cancel);

} // namespace kelm::host

#pragma once

#include "host/disk/safe_disk.h"
#include "host/system/work_options.h"

namespace kelm::host {

/// Gives a child disk a copy of every grain that only its parents hold, and flushes. The link to
/// the parent stays. Compressed records are verified before they are copied.
///
/// A grain that cannot be read or decoded, or whose record names another grain, ends the work; the
/// error has the grain's place, as `addGrainPlace` says. Grains that were copied before stay, so
/// the work can be done again. The disk needs its parent then as before.
/// `beginWholeReading` and `verifyRoomForParentsGrains` come first, and their errors leave the disk
/// as it was.
///
/// The disk is flushed every 64 MiB, so that a kill or a power cut leaves no more than that as dead
/// space; `dropDeadTails` takes it away before the work is done again.
void makeIndependentOfParent(SafeDisk& disk, WorkOptions const& options);

} // namespace kelm::host

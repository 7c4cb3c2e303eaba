#pragma once

#include "host/disk/safe_disk.h"
#include "host/system/work_options.h"
#include "host/transfer/grain_set.h"

namespace kelm::host {

/// Gives a child disk copies of grains that it reads from its parents, zeros too, and flushes. The
/// disk reads as before, so its children still know it, and the link to the parent stays.
/// Compressed records are copied as they are where `ChainGrains` lets them be, and verified before.
///
/// A grain that cannot be read or decoded, or whose record names another grain, ends the work; the
/// error has the grain's place, as `addGrainPlace` says. Grains that were copied before stay, so
/// the work can be done again. The disk needs its parent then as before.
///
/// The disk is flushed every 64 MiB, so that a kill or a power cut leaves no more than that as dead
/// space; `dropDeadTails` takes it away before the work is done again. It keeps few tables from then
/// on (`kMaxTablesOfOnePass`).
void holdGrains(SafeDisk& disk, GrainSet const& grains, WorkOptions const& options);

} // namespace kelm::host

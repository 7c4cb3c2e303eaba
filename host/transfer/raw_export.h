#pragma once

#include "host/disk/safe_disk.h"
#include "host/system/work_options.h"
#include "host/transfer/raw_target.h"

namespace kelm::host {

/// Copies a whole disk, up to its exact size (`getExactSizeBytes`), to a raw image and finishes
/// that. What becomes of zeros says the target. One that is too small is left as it was: see
/// `RawTarget::verifyHasRoomFor`. A grain that cannot be read or decoded ends the export; the error
/// has the grain's place, as `addGrainPlace` says. `beginWholeReading` comes before anything is
/// written.
void exportRaw(SafeDisk& disk, RawTarget& target, WorkOptions const& options);

} // namespace kelm::host

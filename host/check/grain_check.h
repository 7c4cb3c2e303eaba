#pragma once

#include "host/check/disk_check.h"
#include "host/check/known_grains.h"
#include "host/disk/safe_disk.h"
#include "host/system/work_options.h"

namespace kelm::host {

/// Reads and decodes every grain that a disk itself holds, on several threads. `report` gets the
/// file of an extent and a sentence for each grain in it that fails, or for several that are alike
/// (`FindingFold`), and one for each run of grains that cannot be looked up for the same reason, in
/// the order of the grains, on the caller's thread. Grains that are `known` to be damaged are not
/// reported again.
///
/// Errors that are no findings (see `isFinding`) are thrown.
void checkGrains(SafeDisk& disk, WorkOptions const& options, FindingCallback const& report,
                 KnownGrains const& known);

} // namespace kelm::host

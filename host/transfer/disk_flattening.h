#pragma once

#include "host/disk/safe_disk.h"
#include "host/system/work_options.h"
#include "host/transfer/grain_set.h"

namespace kelm::host {

/// The grains that only the parents of a disk hold. Reads tables. `cancel` may be null.
GrainSet findParentsGrains(SafeDisk& disk, CancelFlag const* cancel);

/// Gives a child disk a copy of every grain that only its parents hold, and flushes, as
/// `holdGrains` does it. The link to the parent stays. `beginWholeReading` and `ParentsRoom` come
/// first, and their errors leave the disk as it was.
void makeIndependentOfParent(SafeDisk& disk, WorkOptions const& options);

} // namespace kelm::host

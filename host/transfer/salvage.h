#pragma once

#include "host/disk/safe_disk.h"
#include "host/system/work_options.h"
#include "host/transfer/raw_target.h"
#include "host/transfer/salvaged_disk.h"

namespace kelm::host {

/// How many bytes the image has that a damaged disk stands for: `getExactSizeBytes` as far as it
/// can be known. A record of the size that cannot be right counts as none, and what is damaged
/// behind the exact size does not make the image longer. The list of damage is empty afterwards,
/// and the disk may be read from its start again.
__int64 getSalvagedSizeBytes(SalvagedDisk& disk, CancelFlag const* cancel);

/// Makes a raw image of `imageBytes` bytes, at most the size of the disk, of all that can be read.
/// What was damaged is then in `SalvagedDisk::getDamage`. Errors are those of the target.
void exportSalvaged(SalvagedDisk& disk, RawTarget& target, __int64 imageBytes,
                    WorkOptions const& options);

/// The same into a disk that is at least as large and reads as zeros, which is flushed.
void convertSalvaged(SalvagedDisk& disk, SafeDisk& to, __int64 imageBytes,
                     WorkOptions const& options);

} // namespace kelm::host

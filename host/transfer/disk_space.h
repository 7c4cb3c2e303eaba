#pragma once

#include "host/disk/safe_disk.h"
#include "host/system/work_options.h"

namespace kelm::host {

/// How the files of a disk use their space. The same as `CVMDKDisk::gatherSpaceInfo`, but it
/// reports progress, can be cancelled, and leaves the disk's cursor and its table cache alone.
/// Reads all tables of the disk. Dead space is 0 in a file whose tables claim more than it has.
/// Sizes in a header that no disk can have are `CIOError` `CorruptData`.
CVMDKSpaceInfo gatherSpace(SafeDisk& disk, WorkOptions const& options);

} // namespace kelm::host

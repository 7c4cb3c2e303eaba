#pragma once

#include "host/disk/safe_disk.h"

namespace kelm::host {

/// How many bytes the image has that a disk stands for. A disk is a whole number of 64 KiB, images
/// and devices often are not, so a disk of ours keeps the exact size (`DiskRecord::getImageBytes`).
/// A disk that keeps none stands for all its bytes. So does one that has other bytes than zeros
/// behind its exact size: software that does not know the exact size has written them, and they
/// must not get lost.
///
/// Reads what the disk and its parents hold behind the exact size: less than 64 KiB, or in the
/// smallest disks 8 MiB, unless others made the record. A record that cannot be right is `CIOError`
/// `CorruptData` with "uri" of the main file. A grain there that cannot be read is an error that
/// has the grain's place, as `addGrainPlace` says.
__int64 getExactSizeBytes(SafeDisk& disk);

/// Whether the disk keeps an exact size, right or wrong.
bool keepsExactSize(SafeDisk& disk);

/// Makes `exactSizeBytes` the exact size of a disk that is open for writing, stores that, and
/// flushes. What lies behind becomes zeros, which takes no space where it is zeros already. A size
/// below 0 or above that of the disk is `yx::CInvalidArgError`, and changes nothing.
void setExactSizeBytes(SafeDisk& disk, __int64 exactSizeBytes);

} // namespace kelm::host

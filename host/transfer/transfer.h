#pragma once

#include "host/disk/safe_disk.h"
#include "host/system/work_options.h"
#include "host/transfer/raw_source.h"
#include "host/transfer/raw_target.h"

namespace kelm::host {

/// Copies a raw image to the start of a disk, and flushes the disk. Zeros take no space. On a child
/// disk only grains that differ from the parent are stored. What lies behind the image's end stays. An image longer than the disk is
/// `CIOError` `NotAllowed`, for a pipe once it has delivered too much.
void importRaw(RawSource& source, SafeDisk& disk, WorkOptions const& options);

/// Copies a whole disk to a raw image and finishes that. Zeros become holes.
void exportRaw(SafeDisk& disk, RawTarget& target, WorkOptions const& options);

/// Copies the content of a disk to another one, which is at least as large and reads as zeros, and
/// flushes it. Grains pass in prepared form, without being compressed anew, where both disks store
/// grains of one size compressed.
void convertDisk(SafeDisk& from, SafeDisk& to, WorkOptions const& options);

/// Makes every grain of a child disk its own and flushes. The link to the parent stays.
void makeIndependentOfParent(SafeDisk& disk, WorkOptions const& options);

} // namespace kelm::host

#pragma once

#include "host/disk/safe_disk.h"
#include "host/system/work_options.h"

namespace kelm::host {

/// Copies the content of a disk to another one, which is at least as large and reads as zeros, and
/// flushes it. Grains pass in prepared form, without being compressed anew, where both disks store
/// grains of one size compressed. A smaller target is `CIOError` `NotAllowed`.
void convertDisk(SafeDisk& from, SafeDisk& to, WorkOptions const& options);

} // namespace kelm::host

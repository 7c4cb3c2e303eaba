#pragma once

#include "host/disk/safe_disk.h"
#include "host/system/work_options.h"
#include "host/transfer/record_verifier.h"

namespace kelm::host {

/// Copies the content of a disk to another one, which is at least as large and reads as zeros, and
/// flushes it. Where both disks store grains of one size compressed, records are copied as they
/// are, without being compressed anew; `check` says whether they are verified first.
///
/// A smaller target is `CIOError` `NotAllowed`. A grain that cannot be read or decoded, or whose
/// record fails the check, ends the conversion; the error has the grain's place, as `addGrainPlace`
/// says. `beginWholeReading` comes before all else.
void convertDisk(SafeDisk& from, SafeDisk& to, WorkOptions const& options,
                 RecordCheck check = RecordCheck::Decode);

} // namespace kelm::host

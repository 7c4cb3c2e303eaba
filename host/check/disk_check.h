#pragma once

#include <functional>

#include "host/disk/disk_trust.h"
#include "host/system/work_options.h"
#include "yx/file_system.h"

namespace kelm::host {

/// Receives a finding: the file, and a sentence about what is wrong with it. A sentence about
/// grains or a grain table ends with their bytes in the disk, the first and the last: " (bytes:
/// 65536-131071)"; the file is the one that holds them.
using FindingCallback = std::function<void(yx::CURI const& file, std::string const& text)>;

/// Reads all of a disk and of its parents and reports everything that breaks a rule of the format:
/// in the descriptor, the headers, the tables compared with their redundant copies, the places of
/// the grains, the records and the trail of compressed extents, the key hash, and in every grain,
/// which is decoded. Parents that are missing or have changed are findings too. Changes nothing.
/// Returns the number of findings. What one cause breaks is one finding, with the number of grains.
///
/// Some failures are errors, not findings: a main file that does not exist, a disk in use, a wrong
/// or missing password, what `trust` does not admit, `TooManyRoundsError`, `CancelledError`, and
/// whatever `report` throws.
///
/// Grains are decoded by `WorkOptions::threads` threads. `report` is called on the caller's thread,
/// and the findings of an extent come in the order of its grains. Takes less than 128 MiB of
/// memory, however large the disk is.
__int64 checkDisk(yx::IFileSystem* fileSystem, yx::CURI const& uri, yx::String const& password,
                  WorkOptions const& options, FindingCallback const& report,
                  DiskTrust const& trust = {});

} // namespace kelm::host

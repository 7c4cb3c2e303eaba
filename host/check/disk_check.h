#pragma once

#include <functional>

#include "host/system/work_options.h"
#include "yx/file_system.h"

namespace kelm::host {

/// Receives what is wrong: the file and a sentence about it.
using FindingCallback = std::function<void(yx::CURI const& file, std::string const& text)>;

/// Reads all of a disk and of its parents, changes nothing, and reports everything that breaks a
/// rule of the format: the descriptor, the headers, the tables against their redundant copies, the
/// places of the grains, the records and the trail of compressed extents, the key hash, every grain
/// that does not decode, and parents that are missing or have changed. Returns how many findings
/// there were.
///
/// Not findings but errors, which pass through: a main file that does not exist, a disk in use, a
/// wrong or missing password, `TooManyRoundsError`, `CancelledError`. What `report` throws passes too. Grains are decoded
/// by `WorkOptions::threads` threads; `report` is called on the caller's, and the findings of
/// an extent come in the order of its grains. Takes less than 128 MiB of memory, whatever the disk.
__int64 checkDisk(yx::IFileSystem* fileSystem, yx::CURI const& uri, yx::String const& password,
                  WorkOptions const& options, FindingCallback const& report);

} // namespace kelm::host

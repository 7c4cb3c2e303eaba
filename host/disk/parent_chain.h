#pragma once

#include <memory>
#include <vector>

#include "host/disk/safe_disk.h"

namespace kelm::host {

/// Opens the parents of a disk for reading, the nearest first. The parents' password is that of the
/// disk, and so is the trust. A chain that never ends is `CIOError` `CorruptData`. As long as a
/// parent is open, no one can open it for writing.
std::vector<std::unique_ptr<SafeDisk>> openParents(yx::IFileSystem* fileSystem, SafeDisk& disk,
                                                   yx::String const& password);

} // namespace kelm::host

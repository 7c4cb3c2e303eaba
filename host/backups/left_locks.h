#pragma once

#include <vector>

#include "yx/file_system.h"

namespace kelm::host {

/// Takes the lock file of a disk away if the disk is gone: whoever is killed while it deletes or
/// renames a disk leaves its lock file, and a power cut can bring it back. Does nothing if there is
/// no lock file, if somebody holds it, or if it is somebody else's file. Other errors are those of
/// the file system.
void removeLeftLock(yx::IFileSystem* fileSystem, yx::CURI const& mainFile);

/// The same for all disks whose lock files lie below some folders and end in ".vmdk.lock". Errors
/// are also those of `listFilesBelow`.
void removeLeftLocks(yx::IFileSystem* fileSystem, std::vector<yx::CURI> const& folders);

} // namespace kelm::host

#pragma once

#include <vector>

#include "host/backups/durable_files.h"
#include "yx/file_system.h"

namespace kelm::host {

/// Puts the old descriptor back where a power cut has torn one that `storeParent` was writing, and
/// takes the file away that tells. A descriptor that is no mixture of the old and the new one stays
/// as it is: another disk has the name. A disk that somebody uses is `yx::CLockFileError`. Does
/// nothing where there is no such file.
void mendDescriptor(yx::IFileSystem* fileSystem, DurableFiles& files, yx::CURI const& mainFile);

/// The same for all disks below some folders: before anybody asks who is whose child, since a torn
/// descriptor does not say.
void mendDescriptors(yx::IFileSystem* fileSystem, DurableFiles& files,
                     std::vector<yx::CURI> const& folders);

} // namespace kelm::host

#pragma once

#include "host/disk/disk_extent.h"
#include "yx/buffer.h"
#include "yx/file_system.h"

namespace kelm::host {

/// Deletes the file of an extent, with a warning in the log, if it is a part of an empty extent
/// file, as a power cut or a failing device leaves it while the file is made. Such a file cannot be
/// opened, and it holds no data. `keyHash` is that of `createExtentFile`.
void removeIfUnfinished(yx::IFileSystem* fileSystem, DiskExtent const& extent,
                        yx::TBuffer<unsigned char> const& keyHash);

/// Puts right what a power cut leaves in the file of a compressed extent: its end and the sizes of
/// its slots. Each repair is a warning in the log. A plain extent needs none.
void repairExtentFile(yx::IFileSystem* fileSystem, DiskExtent const& extent);

} // namespace kelm::host

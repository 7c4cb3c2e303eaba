#pragma once

#include "host/disk/disk_extent.h"
#include "yx/buffer.h"
#include "yx/file_system.h"

namespace kelm::host {

/// Whether the file of an extent is there and a part of an empty extent file, as a power cut or a
/// failing device leaves it while the file is made. Such a file cannot be opened, and it holds no
/// data.
///
/// A descriptor may name any file of the machine, so that only a file counts that lies in the
/// folder of the disk, has a name that `isExtentName` knows, and is empty or begins as an empty
/// extent of this very disk begins. One that is longer than such an extent is not read.
///
/// `mainFileURI` is normalised, `keyHash` that of `makeExtentFileContent`.
bool isUnfinishedExtent(yx::IFileSystem* fileSystem, yx::CURI const& mainFileURI,
                        DiskExtent const& extent, yx::TBuffer<unsigned char> const& keyHash);

/// Moves such a file out of the way, with a warning in the log. It gets a suffix to its name (see
/// `moveAside`) and is not deleted.
void moveAsideIfUnfinished(yx::IFileSystem* fileSystem, yx::CURI const& mainFileURI,
                           DiskExtent const& extent, yx::TBuffer<unsigned char> const& keyHash);

/// Puts right what a power cut leaves in the file of a compressed extent: its end and the sizes of
/// its slots. Each repair is a warning in the log. A plain extent, and a file that does not begin
/// as an extent, have nothing to repair.
void repairExtentFile(yx::IFileSystem* fileSystem, DiskExtent const& extent);

} // namespace kelm::host

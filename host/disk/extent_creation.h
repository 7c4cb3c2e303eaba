#pragma once

#include "host/disk/disk_extent.h"
#include "kelm/kelm.h"

namespace kelm::host {

/// Makes the empty file of an extent, as the library makes it for a disk whose extent files come
/// into being at their first write. `keyHash` is empty for a disk that is not encrypted.
void createExtentFile(yx::IFileSystem* fileSystem, DiskExtent const& extent,
                      yx::TBuffer<unsigned char> const& keyHash);

/// The hash of the key of an open disk; empty for a disk that is not encrypted.
yx::TBuffer<unsigned char> keyHashOf(CVMDKDisk& disk);

/// Brings a file that is closed to the device, whoever wrote it, and its name too.
void syncFile(yx::IFileSystem* fileSystem, yx::CURI const& uri);

} // namespace kelm::host

#pragma once

#include "host/disk/disk_extent.h"
#include "kelm/kelm.h"

namespace kelm::host {

/// Makes the empty file of an extent and brings it to the device, its first sector before all else:
/// what a power cut leaves of it is empty or begins as the whole file does, so that it can be
/// distinguished from a file of somebody else. A failure leaves no file. Takes memory for the
/// file's tables, that is 1/8192 of the extent.
void createExtentFileDurably(yx::IFileSystem* fileSystem, DiskExtent const& extent,
                             yx::TBuffer<unsigned char> const& keyHash);

/// The content of the empty file of an extent, as the library makes it. `keyHash` is empty for a
/// disk that is not encrypted.
yx::TBuffer<unsigned char> makeExtentFileContent(DiskExtent const& extent,
                                                 yx::TBuffer<unsigned char> const& keyHash);

/// The hash of the key of an open disk; empty for a disk that is not encrypted.
yx::TBuffer<unsigned char> keyHashOf(CVMDKDisk& disk);

/// Brings a file that is closed to the device, whoever wrote it, and its name too.
void syncFile(yx::IFileSystem* fileSystem, yx::CURI const& uri);

} // namespace kelm::host

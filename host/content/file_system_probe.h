#pragma once

#include <optional>
#include <string>

#include "host/content/byte_source.h"
#include "host/system/cancel.h"

namespace kelm::host {

/// What a disk or a partition holds, as its first bytes and its last say.
struct FileSystem {
    /// As `blkid` names it, such as "ext4", "vfat", "swap", "crypto_LUKS", "LVM2_member"; "" where
    /// more than one thing may be there, so that none is named.
    std::string type;

    /// "filesystem", "raid", "crypto" or "other".
    std::string usage;

    /// As it is stored, so not always UTF-8; "" if there is none.
    std::string label;

    /// "" if there is none.
    std::string uuid;
};

/// Whether this build can tell file systems, by libblkid.
bool canProbeFileSystems();

/// Finds out what a range of a disk holds; nothing if that is not known. What is read is the first
/// 8 MiB, the last 2, and what lies elsewhere of the root folder of FAT, of the first files of NTFS
/// and of the name of an HFS+ volume: never more than 28 MiB, which are held in memory as far as
/// they are no zeros.
///
/// `CIOError` `NotSupported` "This build of kelm cannot tell file systems: it was made without
/// libblkid." where `canProbeFileSystems` is false. Other errors are those of reading, and those of
/// the operating system.
std::optional<FileSystem> probeFileSystem(ByteSource& disk, __int64 startBytes, __int64 sizeBytes,
                                          CancelFlag const* cancel = nullptr);

} // namespace kelm::host

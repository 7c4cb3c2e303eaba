#pragma once

#include <optional>
#include <string>

#include "host/disk/disk_key.h"
#include "host/disk/disk_trust.h"
#include "kelm/graindata/data_preparer.h"
#include "yx/uri.h"

namespace kelm::host {

/// What a new disk is to be.
struct NewDisk {
    /// At least this many bytes; disks are whole numbers of 64 KiB, and no smaller than 8 MiB.
    __int64 sizeBytes = 0;

    /// Empty for a disk that is not encrypted.
    yx::String password;

    /// How the key that wraps the disk's own comes from the password; nothing for the library's
    /// way, which is 10000 rounds.
    std::optional<KeyDerivationSettings> keyDerivation = {};

    /// Whether grains are stored compressed.
    bool compressed = false;

    /// 0 to 9, -1 for the default.
    int compressionLevel = -1;

    /// The largest size of any file, -1 for one file.
    __int64 fileSizeLimitBytes = -1;

    /// Whether all extent files but the first come into being at their first write.
    bool createExtentFilesOnDemand = false;

    /// The parent's main file; empty for none. It is opened with `password` too.
    yx::CURI parent;

    /// Whether the disk is unfinished until `SafeDisk::markComplete`, since it is made to be
    /// filled.
    bool isToBeFilled = false;

    /// What its `DiskRecord` is to say: the exact size of the image that it is filled with, in
    /// bytes, when that was taken, of what and where, and what a person says of it; -1 and "" if
    /// that is not known.
    __int64 imageBytes = -1;
    std::string time;
    std::string source;
    std::string host;
    std::string label;

    /// How far the parents are believed, and the new disk itself: one that is made on demand and is
    /// larger than `kMaxBytesWithoutFile` needs `allowOversize`.
    DiskTrust trust;
};

/// Refuses what cannot become a disk that works, by `yx::CInvalidArgError` at "SafeDisk::create": a
/// single file that could pass 2 TiB, with splitting named as the way out, a name that ends in
/// ".lock", that a descriptor cannot hold, or that is so long that the lock file or the extent
/// files could not be named, and the name of a device, a pipe or a folder. The message says what is
/// in the way.
void verifyCanBeMade(yx::CURI const& uri, NewDisk const& request);

/// The most bytes that a grain takes in a file, enciphering included.
__int64 calcWorstCaseGrainBytes(CVMDKDataPreparer const& preparer);

} // namespace kelm::host

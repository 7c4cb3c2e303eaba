#pragma once

#include <optional>

#include "yx/base.h"

namespace kelm::host {

/// What the first sector of a file system of the FAT family, or of NTFS, says about places.
struct BootSector {
    /// FAT is that of 12 and 16 bits.
    enum class Kind { FAT, FAT32, ExFAT, NTFS };

    /// Which of them it is, and the unit in which it counts.
    Kind kind = Kind::FAT;
    __int64 clusterBytes = 0;

    /// Where the table of clusters begins, and the first cluster; 0 for NTFS.
    __int64 tableStartBytes = 0;
    __int64 dataStartBytes = 0;

    /// The number that the first cluster has.
    int firstCluster = 2;

    /// The cluster with which the root folder begins, or for NTFS the table of files; 0 for `FAT`,
    /// where the root folder lies before the clusters.
    __int64 rootCluster = 0;

    /// Where a cluster begins.
    __int64 startOf(__int64 cluster) const {
        return dataStartBytes + (cluster - firstCluster) * clusterBytes;
    }
};

/// Reads it from the first 512 bytes; nothing if they are something else. Numbers that nothing good
/// can have said are something else.
std::optional<BootSector> readBootSector(unsigned char const* sector);

/// Whether these 512 bytes begin a file system rather than a disk with partitions.
bool isBootSectorOfFileSystem(unsigned char const* sector);

} // namespace kelm::host

#pragma once

#include <array>
#include <optional>

#include "yx/base.h"

namespace kelm::host {

/// Where an HFS+ volume has its catalog, a tree of all files and folders. Its first entry is the
/// root folder, whose name is the label of the volume.
struct HFSCatalog {
    /// A run of blocks of the volume.
    struct Extent {
        __int64 startBlock = 0; ///< counted from the start of the volume
        __int64 blockCount = 0; ///< 0 for a run that is not there
    };

    /// The unit in which extents count.
    __int64 blockBytes = 0;

    /// The first parts of the catalog, in order; without blocks where there are no more.
    std::array<Extent, 8> extents = {};

    /// Where in the volume a stretch of the catalog lies. Nothing for one that is not in these
    /// parts, or not in one piece.
    std::optional<__int64> findPlace(__int64 offsetBytes, __int64 bytes) const;
};

/// A node of the tree.
struct HFSNode {
    __int64 offsetBytes = 0; ///< in the catalog
    int sizeBytes = 0;       ///< of every node
};

/// Where the header of the volume lies in it, and how much of it, and of the first node of a
/// catalog, is looked at.
constexpr __int64 kHFSHeaderStartBytes = 1024;
constexpr int kHFSHeaderBytes = 512;

/// Reads the header of a volume; nothing if that is something else. Numbers that nothing good can
/// have said are something else.
std::optional<HFSCatalog> readHFSCatalog(unsigned char const* header);

/// Reads where the first entries are from the first node of a catalog; nothing if that is damaged.
std::optional<HFSNode> readFirstLeaf(unsigned char const* headerNode);

} // namespace kelm::host

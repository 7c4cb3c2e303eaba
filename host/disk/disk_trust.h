#pragma once

#include <vector>

#include "yx/uri.h"

namespace kelm::host {

/// The most that a disk may ask for unless it is trusted with more: far beyond what disks are like,
/// and little enough to be handled in passing.
constexpr __int64 kMaxGrainSizeBytes = __int64{64} << 20;
constexpr int kMaxExtents = 1 << 16;
constexpr __int64 kMaxBytesWithoutFile = __int64{1} << 40;

/// Which unfinished disks are opened all the same; see `DiskState`.
enum class UnfinishedDisks {
    Refused,
    Itself,  ///< the disk that is opened, for who goes on filling it; none of its parents
    InChain, ///< the disk and its parents, for who wants to see what there is
};

/// How far the descriptor of a disk is believed, which a stranger may have written.
struct DiskTrust {
    /// Folders in which extents may lie beside the folder of the disk, as `uriFromArgument` names
    /// them.
    std::vector<yx::CURI> allowedPaths;

    /// Whether a disk may pass `kMaxGrainSizeBytes`, `kMaxExtents`, and, for extents whose files
    /// are made on demand and are not there, `kMaxBytesWithoutFile` together.
    bool allowOversize = false;

    /// Others are `UnfinishedDiskError`.
    UnfinishedDisks unfinished = UnfinishedDisks::Refused;

    /// How far the parents of such a disk are believed.
    DiskTrust ofParents() const {
        DiskTrust trust = *this;
        if (trust.unfinished == UnfinishedDisks::Itself)
            trust.unfinished = UnfinishedDisks::Refused;
        return trust;
    }
};

} // namespace kelm::host

#pragma once

#include <vector>

#include "host/transfer.h"

namespace kelm::host {

/// Who holds a grain.
enum class GrainPlace {
    Absent, ///< nobody; it reads as zeros
    Parent, ///< a parent of the disk
    Here,   ///< the disk itself
};

/// Neighbouring grains that are held in the same place.
struct GrainRun {
    __int64 startBytes = 0;
    __int64 lengthBytes = 0;
    GrainPlace place = GrainPlace::Absent;

    __int64 endBytes() const { return startBytes + lengthBytes; }
};

/// The runs of a disk, in order and without gaps, each as long as can be. Reads all tables of the
/// disk and, where it has parents, of these.
std::vector<GrainRun> mapDisk(SafeDisk& disk, TransferOptions const& options);

} // namespace kelm::host

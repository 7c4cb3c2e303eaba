#pragma once

#include "host/check/disk_check.h"
#include "host/check/structure_check.h"
#include "host/digest/digest_file.h"
#include "host/digest/grain_sample.h"
#include "host/disk/safe_disk.h"
#include "host/system/work_options.h"

namespace kelm::host {

/// What is known of the grains of a disk before they are read.
struct GrainKnowledge {
    /// Finds damaged ones. It goes ahead of the reading, and is finished before the first finding
    /// about a grain, and at the end.
    StructureCheck& structure;

    /// Which of them are to be read.
    GrainSample sample;

    /// Their digests; null if they are not known.
    DigestFile* digests = nullptr;
};

/// How many grains a disk holds, and how many of them were read.
struct GrainCounts {
    /// All, and those of them that were read.
    __int64 held = 0;
    __int64 read = 0;
};

/// Reads and decodes the grains that a disk itself holds, on several threads, and compares them with
/// their digests. `report` gets the file of an extent and a sentence for each grain in it that
/// fails, or for several that are alike (`FindingFold`), and one for each run of grains that cannot
/// be looked up for the same reason, in the order of the grains, on the caller's thread. Grains that
/// are known to be damaged are not reported again. Grains that the disk does not hold although they
/// have digests, and the reverse, are findings, whether they are to be read or not.
///
/// Errors that are no findings (see `isFinding`) are thrown.
GrainCounts checkGrains(SafeDisk& disk, WorkOptions const& options, FindingCallback const& report,
                        GrainKnowledge const& knowledge);

} // namespace kelm::host

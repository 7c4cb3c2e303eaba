#pragma once

#include <filesystem>
#include <string>

#include "bench/report/report.h"

namespace bench {

/// Where the program finds the password of encrypted disks.
constexpr char kPasswordVariable[] = "KELM_BENCH_PASSWORD";

/// What all parts of the report share.
struct Context {
    Report report;

    /// For work files; emptied at the end.
    std::filesystem::path folder;

    /// The same in memory, where no device is in the way; empty if there is none.
    std::filesystem::path memoryFolder;

    /// The folder whose files fill the image of a file system.
    std::filesystem::path content;

    /// The program kelm.
    std::string tool;

    /// Each figure is the median of so many rounds.
    int rounds = 5;

    /// Divides the sizes of what is measured, for a quick look; the figures then mean nothing.
    int shrink = 1;

    /// For files of measurements that should not depend on a device.
    std::filesystem::path const& getQuietFolder() const {
        return memoryFolder.empty() ? folder : memoryFolder;
    }
};

// The parts of the report.

/// The library on one thread, on plain disks.
void measurePlainDisk(Context& context);

/// Writing in small pieces with frequent flushes.
void measureRandomWrites(Context& context);

/// The library on one thread, on compressed and on encrypted disks.
void measureCodedDisks(Context& context);

/// The program on a whole image.
void measureTool(Context& context);

/// Opening disks of several sizes.
void measureOpening(Context& context);

/// Reading through child disks that hold nothing.
void measureChains(Context& context);

/// Making disks with digests, and importing days over chains of them.
void measureDigests(Context& context);

/// Taking links out of a chain, and merging some.
void measureThinning(Context& context);

/// What the library holds while a disk is open for writing.
void measureMemory(Context& context);

/// A disk of terabytes that is nearly empty.
void measureSparse(Context& context);

/// The same work at three sizes.
void measureGrowth(Context& context);

} // namespace bench

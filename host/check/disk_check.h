#pragma once

#include <functional>
#include <string>
#include <vector>

#include "host/digest/grain_sample.h"
#include "host/disk/disk_trust.h"
#include "host/system/work_options.h"
#include "yx/file_system.h"

namespace kelm::host {

/// Receives a finding: the file, and a sentence about what is wrong with it. A sentence about
/// grains or a grain table ends with their bytes in the disk, the first and the last: " (bytes:
/// 65536-131071)"; the file is the one that holds them.
using FindingCallback = std::function<void(yx::CURI const& file, std::string const& text)>;

/// What of a disk is checked.
struct CheckScope {
    /// Whether its parents are left alone.
    bool ownOnly = false;

    /// Which grains are read; everything else is looked at in any case.
    GrainSample sample;

    /// Whether it is a finding that a disk has no digests, or that they are out of date.
    bool needsDigests = false;
};

/// What a check has come to.
struct CheckResult {
    /// How many findings were reported.
    __int64 findingCount = 0;

    /// How many grains the disks hold, and how many of them were read.
    __int64 heldGrainCount = 0;
    __int64 readGrainCount = 0;

    /// The disks whose digests are those of another content; nothing was compared with them.
    std::vector<yx::CURI> outOfDate;
};

/// Reads all of a disk and of its parents and reports everything that breaks a rule of the format:
/// in the descriptor, the headers, the tables compared with their redundant copies, the places of
/// the grains, the records and the trail of compressed extents, the key hash, and in every grain,
/// which is decoded. Grains are compared with the digests of a disk (`DiskDigests`), if there are any
/// and they are up to date: content that differs, grains that the disk has lost, and grains that it
/// did not have; so is the size of the image. Parents that are missing or have changed are findings
/// too. Changes nothing. What one cause breaks is one finding, with the number of grains.
///
/// Some failures are errors, not findings: a main file that does not exist, a disk in use, a wrong
/// or missing password, what `trust` does not admit, `TooManyRoundsError`, `CancelledError`, and
/// whatever `report` throws.
///
/// Grains are decoded by `WorkOptions::threads` threads. `report` is called on the caller's thread,
/// and the findings of an extent come in the order of its grains. Takes less than 128 MiB of
/// memory, however large the disk is.
CheckResult checkDisk(yx::IFileSystem* fileSystem, yx::CURI const& uri, yx::String const& password,
                      WorkOptions const& options, FindingCallback const& report,
                      DiskTrust const& trust, CheckScope const& scope);

/// The same of everything. Returns the number of findings.
__int64 checkDisk(yx::IFileSystem* fileSystem, yx::CURI const& uri, yx::String const& password,
                  WorkOptions const& options, FindingCallback const& report,
                  DiskTrust const& trust = {});

} // namespace kelm::host

#pragma once

#include <functional>
#include <string>
#include <vector>

#include "host/backups/backup_list.h"
#include "host/backups/disk_drop.h"
#include "host/backups/retention_policy.h"

namespace kelm::host {

/// A disk and what is to become of it.
struct PruneVerdict {
    /// As the list has it; `parent` is an index into the verdicts.
    BackupDisk disk;

    /// Why it stays; empty for one that goes.
    RetentionReasons reasons = {};
};

/// What is to be kept of the backups in folders, and how the others go.
struct PruneOptions {
    /// By which backups stay.
    RetentionRules rules = {};

    /// Disks with another label stay, whatever the rules say; "" for all labels.
    std::string label = {};

    /// How each disk that goes is taken out of its chain. Children are looked for in the folders.
    DiskDropOptions drop = {};

    /// Hears the verdicts before the first disk goes. What it throws ends the work.
    std::function<void(std::vector<PruneVerdict> const&)> tell = {};

    /// Called in the place of `DiskDrop` with `drop`, for hosts that ask for passwords or wait for
    /// disks in use. It has to drop the disk of this main file, with the options that it is given.
    std::function<void(yx::CURI const& mainFile, DiskDropOptions const& options)> dropDisk = {};
};

/// Judges the disks below folders, and the parents that lie elsewhere, which stay. So do disks that
/// cannot be restored, and parents of such. Changes nothing; errors are those of `listBackups`.
std::vector<PruneVerdict> judgeBackups(yx::IFileSystem* fileSystem,
                                       std::vector<yx::CURI> const& folders,
                                       PruneOptions const& options);

/// Takes those out of their chains that no rule keeps, children before their parents, and returns
/// the verdicts. First goes what a program left that was killed over this: torn descriptors are
/// mended and deletions that were begun come to their ends. So who was interrupted goes on by the
/// same call.
///
/// Rules that keep nothing are `yx::CInvalidArgError` at "pruneBackups", before anything is looked
/// at. Other errors are those of `judgeBackups` and of `DiskDrop`.
std::vector<PruneVerdict> pruneBackups(yx::IFileSystem* fileSystem,
                                       std::vector<yx::CURI> const& folders,
                                       PruneOptions const& options);

} // namespace kelm::host

#pragma once

#include <optional>
#include <string>
#include <vector>

#include "host/disk/safe_disk.h"

namespace kelm::host {

/// The most disks that a chain can have, and how many are worth a warning.
constexpr int kMaxDisksOfChain = static_cast<int>(kMaxChainLength) + 1;
constexpr int kLongChain = 200;

/// Whether a disk can be restored, as far as headers and descriptors tell. Damage to grains and
/// tables is not looked for: that is the work of `checkDisk`.
enum class BackupState {
    Complete,      ///< nothing is missing
    Unfinished,    ///< it was not filled to its end
    ParentMissing, ///< its parent is not where its descriptor says
    ParentChanged, ///< its parent has changed since, or never was its parent
    ParentFailing, ///< one of its parents is in one of the other states
    Damaged,       ///< its header or descriptor cannot be read, or a file of it is missing
};

/// The name of a state, as lists show it: "parent missing".
char const* nameOf(BackupState state);

/// A disk among others, as its headers and descriptor describe it.
struct BackupDisk {
    /// The URI of its main file, links resolved.
    yx::CURI mainFile;

    /// Whether it can be restored.
    BackupState state = BackupState::Damaged;

    /// What is wrong, for people; "" for a complete disk.
    std::string problem;

    /// When the image was taken, of what and where, and what a person said of it; "" if not known.
    /// See `DiskRecord`.
    std::string time;
    std::string source;
    std::string host;
    std::string label;

    /// The size of the disk, and that of the image it was made of, if known.
    __int64 sizeBytes = 0;
    std::optional<__int64> imageBytes;

    /// What its own files take on their file system, those of parents excluded.
    __int64 ownBytes = 0;

    /// How it is stored.
    bool isCompressed = false;
    bool isEncrypted = false;
    bool isOnDemand = false;
    int fileCount = 0;

    /// Empty for a disk without a parent.
    yx::CURI parentFile;

    /// The index of the parent in the list; nothing if the disk has none, or none that can be read.
    std::optional<std::size_t> parent;

    /// How many parents there are below this disk, and how many disks need this one.
    int parentCount = 0;
    int dependentCount = 0;
};

/// The disks below folders, and the parents that lie elsewhere.
///
/// Disks that hang together follow each other: first the one without a parent, and each child
/// behind its parent. Otherwise they are in the order of their times, and of their names where
/// these are the same or not known, where numbers count by their value. Files that are part of a
/// disk are not listed for themselves; a file whose name ends in ".vmdk", and which neither is nor
/// belongs to a disk, is a damaged one.
///
/// Takes no locks and asks for no password: disks that are being written are listed too.
/// A folder that cannot be listed is an error, as `listFilesBelow` says.
std::vector<BackupDisk> listBackups(yx::IFileSystem* fileSystem,
                                    std::vector<yx::CURI> const& folders);

} // namespace kelm::host

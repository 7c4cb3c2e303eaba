#pragma once

#include <string>
#include <vector>

#include "host/disk/disk_trust.h"
#include "host/system/cancel.h"
#include "yx/file_system.h"

namespace kelm::host {

/// How a disk is repaired.
struct RepairOptions {
    /// Whether only to find out what would be done.
    bool isDryRun = false;

    /// As for `SafeDisk`.
    DiskTrust trust;

    /// Ends the work before the first change; may be null.
    CancelFlag const* cancel = nullptr;
};

/// What was mended in a file of a disk, and what was not.
struct FileRepair {
    /// The file, normalised.
    yx::CURI file;

    /// Sentences, as `ExtentRepair` has them.
    std::vector<std::string> mended;
    std::vector<std::string> left;
};

/// What a repair has done, or would do.
struct RepairReport {
    /// The files about which there is something to say, in the order of the disk.
    std::vector<FileRepair> files;

    /// Whether anything was mended, or would be.
    bool hasMended() const;

    /// Whether anything was found that cannot be mended.
    bool hasLeft() const;
};

/// Puts the metadata of a disk right as far as they can be known (`planExtentRepair`). The parents
/// are not looked at.
///
/// Every sector that is to be changed is copied first, into a file beside the disk (`UndoFile`),
/// from which `undoRepair` brings it back. A repair that was killed or lost its power is undone
/// first and then begins anew; so the same call goes on.
///
/// The disk is locked for this alone: `CLockFileError` if it is in use. A missing main file is
/// `CIOError` `NotFound`. A descriptor that cannot be read, a wrong password, and what `trust` does
/// not admit are errors as of `SafeDisk`; missing extent files are said in the report.
RepairReport repairDisk(yx::IFileSystem* fileSystem, yx::CURI const& uri,
                        yx::String const& password, RepairOptions const& options);

/// Takes back a repair, finished or not, and returns how many sectors that brought back. Without
/// the copy of one it is `CIOError` `NotFound` "No repair of the disk can be undone." with "uri";
/// if the disk has been changed since, it is `NotAllowed` "The disk has been changed since its
/// repair." with "uri" of the file, and nothing is changed.
__int64 undoRepair(yx::IFileSystem* fileSystem, yx::CURI const& uri, DiskTrust const& trust);

} // namespace kelm::host

#pragma once

#include <set>
#include <vector>

#include "host/backups/disk_claims.h"
#include "host/backups/disk_note.h"
#include "host/disk/disk_trust.h"

namespace kelm::host {

/// A disk that is to be deleted has children, which would be lost with it: "The disk has children
/// that need it." with "uri", "children" (how many) and "child" (the first), and code -1.
class DiskHasChildrenError : public yx::CError {
public:
    /// `children` has at least one.
    DiskHasChildrenError(yx::CURI const& mainFile, std::vector<yx::CURI> const& children);
    std::shared_ptr<yx::CError const> clone() const override;
};

/// How a disk is to be deleted.
struct DiskDeletionOptions {
    /// Where children of the disk are looked for, folders below included.
    std::vector<yx::CURI> lookIn = {};

    /// Whether the children are deleted too, and theirs; otherwise a disk with children is not.
    bool withChildren = false;

    /// How far the descriptors are believed.
    DiskTrust trust = {};
};

/// Deletes a disk with all of its files, without opening it, so that no password is needed.
///
/// The order of the steps (`DurableFiles`), so that nobody takes a part of a disk for all of it:
///
/// 1. A note beside the disk names all files that will go (`DiskNote`), unless it is one file alone.
/// 2. Each child goes before its parent, and of each disk the main file before the others. Without
///    its main file a disk is none, whatever extents are left; a disk that still has it has all of
///    its parents.
/// 3. The note goes.
///
/// Whoever is killed, or fails, goes on by the same call.
///
/// Errors, apart from those of the files: a disk that does not exist is `yx::CIOError` `NotFound`
/// "The disk does not exist."; children, `DiskHasChildrenError`; a disk that is being renamed,
/// `NotAllowed` "The disk is being renamed." with "uri"; a disk in use, `yx::CLockFileError`; those
/// of `verifyOwnsFiles` and `verifyHasFilesAlone`. All of these leave every file.
class DiskDeletion {
public:
    /// `fileSystem` is a `FileSystems`, `mainFile` is a name that `uriFromArgument` made.
    DiskDeletion(yx::IFileSystem* fileSystem, DurableFiles& steps, yx::CURI const& mainFile,
                 DiskDeletionOptions const& options);

    /// Deletes the disk, or goes on with it, and returns the names of the files that went. Called
    /// once.
    std::vector<yx::CURI> run();

private:
    void plan();
    void planDisk(DiskRelations const& relations, yx::CURI const& mainFile);
    void planLeftFiles(DiskRelations const& relations, DiskNote const& note);
    void planFile(yx::CURI const& file);
    void writeNote();

    yx::P<yx::IFileSystem> m_fileSystem;
    DurableFiles& m_steps;
    yx::CURI m_mainFile;
    DiskDeletionOptions m_options;
    DiskClaims m_claims;

    /// In the order in which they go.
    std::vector<yx::CURI> m_files;
    std::set<yx::CURI> m_planned;
};

} // namespace kelm::host

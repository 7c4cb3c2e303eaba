#pragma once

#include <memory>
#include <optional>
#include <vector>

#include "host/backups/disk_parts.h"
#include "host/backups/durable_files.h"
#include "host/system/work_options.h"
#include "host/transfer/parent_swap.h"
#include "host/transfer/parents_room.h"

namespace kelm::host {

/// How a disk is to be taken out of its chain.
struct DiskDropOptions {
    /// Where children of the disk are looked for, folders below included.
    std::vector<yx::CURI> lookIn = {};

    /// Of all disks that are encrypted.
    yx::String password = {};

    /// How far descriptors are believed.
    DiskTrust trust = {};

    /// Whether each child is compared with what it was before it leaves the disk: all that it got,
    /// and all that it reads from its parents.
    bool verify = false;

    /// Progress is that of one step at a time: copying for a child, comparing a child.
    WorkOptions work = {};
};

/// What has been done.
struct DiskDropResult {
    /// The names of the files that went.
    std::vector<yx::CURI> files;

    /// The main files of the children, which hang on the disk's parent now, or on none.
    std::vector<yx::CURI> children;
};

/// Takes a disk out of its chain: its children keep their content and hang on its parent, or on
/// none if it has none, and its files go. A disk without children is deleted.
///
/// The order of the steps, so that every disk but the one that goes can be read at any moment:
///
/// 1. All children are looked at, and the file systems are asked for room. Until here, nothing is
///    changed but what opening a disk for writing puts right.
/// 2. A child gets what the disk holds and it does not, and is flushed (`holdGrains`). Its content
///    stays, and with it the content ID by which its own children know it.
/// 3. The child gets its new parent (`storeParent`). Steps 2 and 3 come for one child after the
///    other.
/// 4. The files go, as `DiskDeletion` deletes a disk.
///
/// Whoever is killed, or fails, goes on by the same call, which first undoes what a power cut in
/// step 3 may have torn (`mendDescriptors`).
///
/// Errors, apart from those of opening and reading, of `ParentsRoom`, of `ParentSwap` and of
/// `DiskDeletion`: a child of other content than the disk's is `yx::CIOError` `NotAllowed` "The
/// child was made of another content of its parent." with "uri" and "parentURI"; so is a parent of
/// the disk, for the disk. A disk or child in use is `yx::CLockFileError`.
class DiskDrop {
public:
    /// `fileSystem` is a `FileSystems`, `mainFile` is a name that `uriFromArgument` made.
    DiskDrop(yx::IFileSystem* fileSystem, DurableFiles& steps, yx::CURI const& mainFile,
             DiskDropOptions const& options);

    /// Drops the disk, or goes on with it. Called once.
    DiskDropResult run();

private:
    void verifyMayGo(DiskRelations const& relations) const;
    void openChain();
    std::unique_ptr<SafeDisk> openDisk(yx::CURI const& mainFile,
                                       yx::IIOStream::Access access) const;
    std::unique_ptr<SafeDisk> openToChange(yx::CURI const& child) const;
    ParentSwap swapFor(SafeDisk& child) const;
    void planChild(yx::CURI const& child, ParentsRoom& room) const;
    void fillChild(yx::CURI const& child) const;

    yx::P<yx::IFileSystem> m_fileSystem;
    DurableFiles& m_steps;
    yx::CURI m_mainFile;
    DiskDropOptions m_options;

    // Open while children are changed, so that nobody changes them.
    std::unique_ptr<SafeDisk> m_disk;
    std::unique_ptr<SafeDisk> m_parent;
};

} // namespace kelm::host

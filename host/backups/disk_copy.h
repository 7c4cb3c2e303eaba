#pragma once

#include <functional>
#include <vector>

#include "host/backups/copied_files.h"
#include "host/backups/disk_claims.h"
#include "host/backups/disk_note.h"
#include "host/disk/disk_trust.h"
#include "host/system/work_options.h"

namespace kelm::host {

/// How a disk is to be copied.
struct DiskCopyOptions {
    /// How far the descriptor is believed.
    DiskTrust trust = {};

    /// Progress and cancelling; nothing is computed on threads.
    WorkOptions work = {};
};

/// Copies a disk: all of its files, under the names that `DiskMove` would give them. The copy has
/// the content ID of the disk and its parent, so that either can stand for the other. The disk is
/// not opened, so no password is needed; others may read it meanwhile, and nobody writes to it.
///
/// The order of the steps (`DurableFiles`), so that a part of a copy passes for no disk:
///
/// 1. A note beside the new name says what will be made (`DiskNote`).
/// 2. The files of extents, and then the main file, each under its name only once it is whole and
///    compares equal. Where the file system can, they share the space of the old ones.
/// 3. A descriptor inside an extent gets its own new name and that of its parent as seen from
///    there, and the note goes.
///
/// Whoever is killed goes on by the same call; files that are there already are compared, not
/// copied. Who fails takes away what it made.
///
/// Errors, apart from those of the files: a disk that does not exist is `yx::CIOError` `NotFound`
/// "The disk does not exist."; a name that is taken, `AlreadyExists` "The file exists already." with
/// "uri"; too little room, `NoSpace` "There is not enough room for the copy." with "uri" (the folder),
/// "neededBytes" and "freeBytes", before anything is made; a disk that is being written to,
/// `yx::CLockFileError`; those of `verifyOwnsFiles`.
class DiskCopy {
public:
    /// `fileSystem` is a `FileSystems`, `from` and `to` are names that `uriFromArgument`
    /// made.
    DiskCopy(yx::IFileSystem* fileSystem, DurableFiles& steps, yx::CURI const& from,
             yx::CURI const& to, DiskCopyOptions const& options);

    /// Copies the disk, or goes on with it, and returns the files of the copy, the main file first.
    /// Called once.
    std::vector<yx::CURI> run();

private:
    void readNote();
    void planFiles();
    void copyFiles();
    void copyFile(yx::CURI const& to, yx::CURI const& from);
    void makeMainFile();
    void withdraw();

    yx::P<yx::IFileSystem> m_fileSystem;
    DurableFiles& m_steps;
    yx::CURI m_from;
    yx::CURI m_to;
    DiskCopyOptions m_options;
    DiskClaims m_readClaims;
    DiskClaims m_newClaims;

    /// Of each file the new name and the old one.
    DiskNote m_note;

    /// There was a note of a call that was ended.
    bool m_goesOn = false;
    std::optional<DiskParts> m_disk;
    std::vector<yx::CURI> m_made;
    CopiedFiles m_copied;
};

} // namespace kelm::host

#pragma once

#include <vector>

#include "host/backups/copied_files.h"
#include "host/backups/disk_claims.h"
#include "host/backups/disk_note.h"
#include "host/disk/disk_trust.h"
#include "host/system/work_options.h"

namespace kelm::host {

/// How a disk is to be moved.
struct DiskMoveOptions {
    /// Where children of the disk are looked for, folders below included.
    std::vector<yx::CURI> lookIn = {};

    /// How far the descriptor is believed.
    DiskTrust trust = {};

    /// Progress of copying, where files cannot have second names, and what ends the work as long as it
    /// can be undone.
    WorkOptions work = {};
};

/// What has been done.
struct DiskMoveResult {
    /// The files of the disk, under the names that they have now.
    std::vector<yx::CURI> files;

    /// The main files of the children that know the new name now.
    std::vector<yx::CURI> children;
};

/// Gives a disk another name, perhaps in another folder or on another file system: all of its
/// files, and its name in its children. Neither it nor they are opened, so no password is needed.
///
/// A file whose name begins with that of the disk gets a name that begins with the new one. Files
/// that go to another folder lie beside the main file there. An extent that is made on demand and
/// is not there gets its name in the descriptor.
///
/// The order of the steps (`DurableFiles`), so that the disk and its children can be read at any
/// moment:
///
/// 1. A note beside the disk says what will be done (`DiskNote`).
/// 2. Where the file of a child disk will be seen from another folder, its parent's name becomes one
///    that holds in both.
/// 3. All files get their new names too, the main file last: as second names, or as copies where
///    there can be none. A descriptor in a file of its own is written anew. Now both names are whole
///    disks.
/// 4. The children get the new name, one after the other.
/// 5. The old names go, the main file's first; a descriptor in the disk's only file gets its own new
///    name and the shortest name of its parent; the note goes.
///
/// Whoever is killed, or fails, after step 3 goes on by the same call. Before, what was made is
/// taken away again by who fails, and used by the next call after a kill. A power cut while the
/// descriptor inside an extent is written (steps 2, 4 and 5) can tear a line if the name moves
/// lines to other sectors, as with all who store descriptors.
///
/// Errors, apart from those of the files: a disk that does not exist is `yx::CIOError` `NotFound`
/// "The disk does not exist."; a name that is taken, `AlreadyExists`; a disk that is being moved to
/// another name, `NotAllowed` "The disk is being renamed to another name." with "uri" and "target";
/// two files that would have one name, `NotAllowed` "Two files of the disk would have one name."; a
/// disk or child in use, `yx::CLockFileError`; too little room on another device, `NoSpace` as
/// `CopiedFiles` says, before anything is made; those of `verifyOwnsFiles` and
/// `verifyHasFilesAlone`.
class DiskMove {
public:
    /// `fileSystem` is a `FileSystems`, `from` and `to` are names that `uriFromArgument`
    /// made.
    DiskMove(yx::IFileSystem* fileSystem, DurableFiles& steps, yx::CURI const& from,
             yx::CURI const& to, DiskMoveOptions const& options);

    /// Moves the disk, or goes on with it. Called once.
    DiskMoveResult run();

private:
    void readNote();
    void readDisks();
    void makeNote();
    void verifyNamesAreFree() const;
    void verifyReferencesHaveRoom() const;
    void claim();
    void giveNewNames();
    void keepParentInReach();
    void verifyRoom();
    void copyFile(yx::CURI const& from, yx::CURI const& to);
    void addFile(yx::CURI const& from, yx::CURI const& to);
    void addMainFile();
    void verifyIsMovedDisk() const;
    void withdraw();
    void informChildren();
    void removeOldNames();
    void completeUnderNewName();
    DescriptorFile withNewParent(DiskParts const& child) const;
    std::map<yx::CURI, yx::CURI> getNewNames() const;

    yx::P<yx::IFileSystem> m_fileSystem;
    DurableFiles& m_steps;
    yx::CURI m_from;
    yx::CURI m_to;
    DiskMoveOptions m_options;
    DiskClaims m_claims;
    DiskNote m_note;

    /// There was a note of a call that was ended.
    bool m_goesOn = false;

    /// The main file had both names already, so that children may know the new one.
    bool m_isNamed = false;

    /// The disk under its old name, as long as that is there.
    std::optional<DiskParts> m_disk;
    std::vector<DiskParts> m_children;
    std::vector<yx::CURI> m_made;
    CopiedFiles m_copied;
};

} // namespace kelm::host

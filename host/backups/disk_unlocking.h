#pragma once

#include <memory>
#include <string>
#include <vector>

#include "host/disk/disk_trust.h"
#include "host/store/store_holders.h"
#include "host/system/cancel.h"
#include "yx/file_system.h"
#include "yx/lock_file.h"

namespace kelm::host {

/// How a disk is to be unlocked.
struct DiskUnlockOptions {
    /// Whether clients of other machines are shut out, on the word of the user that they are dead.
    bool force = false;

    /// How far the descriptor is believed.
    DiskTrust trust = {};

    /// May be null, and must outlive the work.
    CancelFlag const* cancel = nullptr;
};

/// What has become of a disk that was to be unlocked.
struct DiskUnlockResult {
    yx::CURI mainFile; ///< the disk's

    /// Clients that the store has shut out: those of processes of this machine that have ended, and
    /// with `DiskUnlockOptions::force` those of other machines.
    std::vector<StoreHolder> shutOut;

    /// Clients that still hold the disk, or may hold it.
    std::vector<StoreHolder> holders;

    /// Whether `holders` are all who hold the disk: the store knows them, and has told.
    bool areHoldersKnown = false;

    /// Why the store has not told who holds the disk; null if it has, or does not know.
    std::shared_ptr<yx::CError const> whyUnknown;

    /// Null if the disk is free: its lock file and its files were locked alone and let go again.
    /// Otherwise who opens it is told this, with "uri".
    std::shared_ptr<yx::CLockFileError const> refusal;
};

/// `uriFromArgument` for a disk that is to be unlocked: in a store that knows who holds a file, only
/// the folder is looked at, since to look at a file that a dead client has may have to wait for that.
yx::CURI nameToUnlock(std::string const& argument);

/// Finds out who holds a disk, frees it of those who have died, and proves that it is free by
/// taking its locks for a moment.
///
/// What processes of this machine held that have ended is freed. Nobody who lives is disturbed: a
/// process of this machine keeps what it holds, and so, unless there is force, do those of others.
/// Where the store knows who holds a file (`IStoreHolders`), it is asked before any file is opened,
/// since opening one may wait for a dead client.
///
/// `mainFile` is that of `nameToUnlock`; that of the result has its links resolved, unless the disk
/// was found held before. A name that is a link may have to wait for whoever holds the disk.
///
/// A disk that does not exist is `yx::CIOError` `NotFound`. With force, a user who may not ask the
/// store who holds files is `AccessDenied`. A descriptor that names files which are not the disk's
/// is refused as by `verifyOwnsFiles`. Other errors are those of the store; what was shut out by
/// then stays so.
DiskUnlockResult unlockDisk(yx::IFileSystem* fileSystem, yx::CURI const& mainFile,
                            DiskUnlockOptions const& options);

} // namespace kelm::host

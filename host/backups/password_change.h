#pragma once

#include <vector>

#include "host/backups/durable_files.h"
#include "host/disk/chain_keys.h"
#include "host/disk/disk_key.h"
#include "host/disk/disk_trust.h"

namespace kelm::host {

/// What `changePassword` is to do.
struct PasswordChange {
    /// The passwords of now.
    ChainPasswords before;

    /// That of then. Not empty.
    yx::String after;

    /// How the key that wraps is derived; see `drawKeyDerivation`.
    KeyDerivationSettings derivation;

    /// Whether the parents get the password too.
    bool withParents = false;

    /// How far the descriptors are believed.
    DiskTrust trust = {};
};

/// Gives an encrypted disk another password: its key is wrapped anew, and the data stay as they
/// are. Returns the main files of the disks that were changed, the disk first. Parents that are not
/// encrypted are passed over.
///
/// Who still has a copy of the old descriptor, and the old password, has the key: this keeps
/// nobody out who could read the disk before.
///
/// The only copy of a key is in its descriptor. Each step is on the device before the next one, and
/// whatever a kill or a power cut leaves opens by the old password or the new one, and goes on by
/// the same call: a disk that has the new password already counts as changed. Inside an extent
/// `planKeyRewrapping` says what the steps are; a file of text is replaced by another one.
///
/// Errors, all before the first change: a disk without encryption is `yx::CIOError` `NotAllowed`
/// "The disk is not encrypted." with "uri"; a password that is neither the old one nor the new one,
/// "Specified VMDK encryption password is not correct."; a disk in use, `yx::CLockFileError`; those
/// of `verifyOwnsFiles` and of `planKeyRewrapping`.
std::vector<yx::CURI> changePassword(yx::IFileSystem* fileSystem, DurableFiles& steps,
                                     yx::CURI const& mainFile, PasswordChange const& change);

/// The encrypted disks among `mainFiles`.
std::vector<yx::CURI> listEncrypted(yx::IFileSystem* fileSystem,
                                    std::vector<yx::CURI> const& mainFiles);

} // namespace kelm::host

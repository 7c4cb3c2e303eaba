#pragma once

#include "host/system/derived_keys.h"
#include "yx/file_system.h"

namespace kelm::host {

/// The passwords that a chain of disks may have.
struct ChainPasswords {
    /// That with which the disk is going to be opened. Empty if there is none.
    yx::String ofDisk;

    /// That of parents with another one. Empty if there is none.
    yx::String ofParents;
};

/// Derives the keys of a disk and of its parents before they are opened, several at once on
/// `threads` threads, each distinct one once, and leaves them in `keys`.
///
/// The library opens a parent with the password of its child. If that is not the parent's, but
/// `passwords.ofParents` is, its key is kept as if the child's password led to it: so one opening
/// passes through a chain of two passwords.
///
/// What cannot be read, and passwords that fit nothing, are left to the opening, which has the
/// words for it. `CancelledError` and `TooManyRoundsError` of a `KeyDerivationWatch` pass.
void deriveKeysOfChain(yx::IFileSystem* fileSystem, yx::CURI const& mainFile,
                       ChainPasswords const& passwords, DerivedKeys& keys, int threads);

} // namespace kelm::host

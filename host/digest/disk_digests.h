#pragma once

#include <memory>

#include "host/digest/digest_file.h"
#include "host/disk/safe_disk.h"

namespace kelm::host {

/// How the digests beside a disk relate to it.
enum class DigestState {
    Missing,   ///< there are none, or their making was ended
    OutOfDate, ///< they are those of another content: the disk was changed since
    UpToDate,  ///< they are those of the disk's content
};

/// The digests of an open disk.
struct DiskDigests {
    /// Looks for the digests of `disk`, which must have been opened with its password, in
    /// `fileSystem`, where the disk was opened. Errors are those of `DigestFile::open`, but for a
    /// missing file. Digests are up to date if they have the content ID, the size and the grain size
    /// of the disk; every change of the disk's content changes the first (`ContentIDChange`).
    static DiskDigests open(yx::IFileSystem* fileSystem, SafeDisk& disk);

    /// The state of the file.
    DigestState state = DigestState::Missing;

    /// Null if there are none. Use it only as far as `state` allows.
    std::unique_ptr<DigestFile> file;

    /// Whether they are up to date.
    bool areUpToDate() const { return state == DigestState::UpToDate; }
};

} // namespace kelm::host

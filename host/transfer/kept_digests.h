#pragma once

#include <memory>

#include "host/digest/chain_digests.h"
#include "host/digest/disk_digests.h"
#include "host/disk/safe_disk.h"
#include "host/system/work_options.h"
#include "host/transfer/grain_set.h"

namespace kelm::host {

/// Keeps the digests of a disk through work that leaves its content, and lets the disk hold more of
/// it. While the work goes on the disk has none, so a kill leaves none.
class KeptDigests {
public:
    /// Before the work. Digests that are missing or out of date are none to keep, nor are those that
    /// cannot be read, of which it warns. `disk`, opened in `fileSystem`, must outlive the object.
    /// The parents stay open for their digests, with `password`; other errors are those of
    /// `ChainDigests::openSome`.
    KeptDigests(yx::IFileSystem* fileSystem, SafeDisk& disk, yx::String const& password);

    /// After the work: makes them anew. The digests of what the disk held before are taken from the
    /// old ones, and those of what it got from its parents', so that a grain that was damaged before
    /// it was copied is still found. Where those tell nothing, grains are read; where they have
    /// keys, what is read is compared with them. Errors are those of `DigestMaking::finish` and of
    /// `DigestFile::find`, and leave the disk without digests.
    void finish(WorkOptions const& options);

private:
    yx::P<yx::IFileSystem> m_fileSystem;
    SafeDisk& m_disk;

    /// The file is open, and so can be read when it is gone.
    DiskDigests m_former;
    std::unique_ptr<ChainDigests> m_parents;
};

/// As `holdGrains`, with the digests of the disk kept, as `KeptDigests` does.
void holdGrainsWithDigests(yx::IFileSystem* fileSystem, SafeDisk& disk, yx::String const& password,
                           GrainSet const& grains, WorkOptions const& options);

} // namespace kelm::host

#pragma once

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
    KeptDigests(yx::IFileSystem* fileSystem, SafeDisk& disk);

    /// After the work: makes them anew. The digests of what the disk held before are taken from the
    /// old ones, and the grains that it got are read. Errors are those of `DigestMaking::finish` and of
    /// `DigestFile::find`, and leave the disk without digests.
    void finish(WorkOptions const& options);

private:
    yx::P<yx::IFileSystem> m_fileSystem;
    SafeDisk& m_disk;

    /// The file is open, and so can be read when it is gone.
    DiskDigests m_former;
};

/// As `holdGrains`, with the digests of the disk kept.
void holdGrainsWithDigests(yx::IFileSystem* fileSystem, SafeDisk& disk, GrainSet const& grains,
                           WorkOptions const& options);

} // namespace kelm::host

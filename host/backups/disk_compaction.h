#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "host/backups/durable_files.h"
#include "host/backups/extent_compaction.h"
#include "host/digest/disk_digests.h"
#include "host/disk/safe_disk.h"
#include "host/system/work_options.h"
#include "host/transfer/transfer_progress.h"

namespace kelm::host {

/// How a disk is to be compacted.
struct DiskCompactionOptions {
    /// Of a disk that is encrypted.
    yx::String password = {};

    /// How far the descriptor is believed.
    DiskTrust trust = {};

    /// Progress is that of one step at a time: looking for dead space, and copying what is none.
    /// Nothing is computed on threads.
    WorkOptions work = {};
};

/// What became of an extent file.
struct CompactedFile {
    /// Normalised.
    yx::CURI file;

    /// Its length before and now; the same if there was nothing to win.
    __int64 bytesBefore = 0;
    __int64 bytesAfter = 0;

    /// Why it could not be looked at for dead space; empty if it could.
    std::string obstacle;
};

/// Takes the dead space out of the files of a disk, as `planCompaction` finds it, and puts the
/// grains in order. The content stays, and with it the content ID, so children still know the disk;
/// so do its descriptor and its digests. Zeros go where the disk has no parent, unless digests that
/// are up to date name the grain. Slots are as large as their records afterwards: a compressed grain
/// that is overwritten by a larger one gets a new slot at the end of the file.
///
/// The order of the steps (`DurableFiles`), so that the disk can be read at any moment:
///
/// 1. All files are planned, and each file system is asked for room for the largest new file.
/// 2. For each file with something to win a new one is written beside it, brought to the device and
///    compared with it grain by grain. Only then it takes the old one's place and rights, in one
///    step. The main file comes last.
///
/// Whoever is killed goes on by the same call, which finds the files that are done without anything
/// to win. What an ended call has left of a new file goes first. The way back that a repair has kept
/// (`UndoFile`) goes before the first file is replaced, since it speaks of sectors of the old ones.
///
/// A name that is one of several hard links leads to the new file then, and the others to the old.
///
/// Returns what became of each extent file, in the order of the disk.
///
/// Errors, apart from those of opening for writing, of `planCompaction` and of `verifyOwnsFiles`,
/// before anything is changed but what opening a disk for writing puts right: other work on the disk
/// that did not come to its end is `yx::CIOError` `NotAllowed` with what `DiskNote::describe` says,
/// or "A repair of the disk did not come to its end.", each with "uri"; too little room is `NoSpace`
/// "There is not enough room for the compacted file." with "uri" (the folder), "neededBytes" and
/// "freeBytes". A disk or child in use is `yx::CLockFileError`. Later errors are those of
/// `writeCompacted`, of `verifyCompacted` and of the files, and leave each file as it was or done.
class DiskCompaction {
public:
    /// `fileSystem` is a `FileSystems`, `mainFile` is a name that `uriFromArgument` made.
    DiskCompaction(yx::IFileSystem* fileSystem, DurableFiles& steps, yx::CURI const& mainFile,
                   DiskCompactionOptions const& options);

    /// Compacts the disk, or goes on with it. Called once.
    std::vector<CompactedFile> run();

private:
    /// A file of the disk and what is to become of it.
    struct PlannedFile {
        DiskExtent extent;
        CompactionPlan plan;
    };

    void verifyNothingIsUnfinished() const;
    void openDisk();
    void removeLeftovers() const;
    void planFiles();
    ExtentToCompact describe(DiskExtent const& extent);
    bool mayDropZeros(__int64 diskPositionBytes, __int64 grainSizeBytes);
    void verifyRoom() const;
    void compactFiles();
    void compactFile(PlannedFile const& file, TransferProgress& progress);

    yx::P<yx::IFileSystem> m_fileSystem;
    DurableFiles& m_steps;
    yx::CURI m_mainFile;
    DiskCompactionOptions m_options;
    std::unique_ptr<SafeDisk> m_disk;
    DiskKey m_key;
    DiskDigests m_digests;
    bool m_areDigestsDamaged = false;
    std::vector<PlannedFile> m_files;
    __int64 m_doneBytes = 0;
};

} // namespace kelm::host

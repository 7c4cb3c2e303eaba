#pragma once

#include <optional>
#include <vector>

#include "host/backups/disk_claims.h"
#include "host/backups/disk_copy.h"
#include "host/store/store_upload.h"

namespace kelm::host {

/// Copies a disk to a store that takes whole files alone (`findUpload`), such as a bucket. The files
/// get the names that `DiskCopy` would give them, and their descriptor says so. The main file comes
/// last, so what is there before it passes for no disk. The disk is not opened, so no password is
/// needed; others may read it meanwhile, and nobody writes to it.
///
/// A child refers to the file of its parent's name in the folder that it comes to, if that is there
/// and has the content that the child builds on; otherwise to the same file as before.
///
/// Who fails or is killed leaves the files that were complete. The next call compares them and
/// goes on.
///
/// Errors, apart from those of the files: a disk that does not exist is `yx::CIOError` `NotFound`
/// "The disk does not exist."; one that was not filled to its end `UnfinishedDiskError`, unless it is
/// trusted; a name that another file has, `AlreadyExists` "The file exists already." with "uri"; a
/// disk that is being written to, `yx::CLockFileError`; those of `verifyOwnsFiles`.
class DiskUpload {
public:
    /// `from` and `to` are names that `uriFromArgument` made; `findUpload` finds the store of `to`.
    DiskUpload(yx::IFileSystem* fileSystem, yx::CURI const& from, yx::CURI const& to,
               DiskCopyOptions const& options);

    /// Uploads the disk and returns the files of the copy, the main file first. Called once.
    std::vector<yx::CURI> run();

private:
    void planFiles();
    void verifyIsFinished() const;
    DescriptorFile makeDescriptor() const;
    std::optional<yx::CURI> findParentThere(CVMDKDescriptor const& descriptor) const;
    bool isThereAlready(yx::CURI const& from, yx::CURI const& to) const;
    void uploadFile(yx::CURI const& from, yx::CURI const& to);
    void uploadMainFile();
    void send(yx::CURI const& to, Upload upload);

    yx::P<yx::IFileSystem> m_fileSystem;
    yx::CURI m_from;
    yx::CURI m_to;
    DiskCopyOptions m_options;
    DiskClaims m_claims;
    std::optional<DiskParts> m_disk;

    /// Of each file that is there the old name and the new one, the main file first.
    std::vector<std::pair<yx::CURI, yx::CURI>> m_files;
    __int64 m_totalBytes = 0;
    __int64 m_doneBytes = 0;
};

} // namespace kelm::host

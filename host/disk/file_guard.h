#pragma once

#include <optional>
#include <vector>

#include "host/disk/file_locks.h"
#include "host/system/cancel.h"
#include "host/system/file_identity.h"
#include "yx/file_system.h"

namespace kelm::host {

/// A file system for making new files. It passes everything on to another one, refuses to touch
/// what was there before, and deletes what it made unless `keep` was called. Do not use it for a
/// disk that exists and is changed.
///
/// Files of URIs with a store (`findStore`) are made exclusively and locked from their first moment (`FileLocks`), so
/// that of two programs which make a file of one name, one fails; one that somebody has locked is
/// not replaced but `CLockFileError`. The locks end with the disk that is made, or with the guard.
///
/// What is no regular file, such as a block device, is never replaced: `CIOError` `NotAllowed`.
///
/// Lock files (".lock") are exempt: one that a killed process left is taken over by the next user.
class FileGuard : public yx::CBase, public virtual yx::IFileSystem {
public:
    /// With `overwrite`, files that were there before may be replaced and deleted; what replaced
    /// them is taken away like any new file. `cancel`, which may be null and must outlive the
    /// guard, is looked at before each new file, since a disk may have thousands.
    FileGuard(yx::IFileSystem* fileSystem, bool overwrite, CancelFlag const* cancel = nullptr);
    FileGuard(FileGuard const&) = delete;
    FileGuard& operator=(FileGuard const&) = delete;

    /// Deletes the files that were made, unless they are to be kept. Every stream on them must be
    /// closed by then. What cannot be deleted is logged as a warning. A file that somebody else has
    /// put under the name of one that was made stays.
    ~FileGuard() override;

    /// All files stay, those that a disk on this guard may still make included.
    void keep() { m_kept = true; }

    /// Looks whether each name still is that of the file that was made here. A file that somebody
    /// deleted meanwhile is `CIOError` `NotFound`, one that was replaced `IOFailure`, each with
    /// "uri". Comes once all streams are closed, and before `keep`.
    void verifyFilesAreThere() const;

    /// Names files that may not be replaced or deleted even with `overwrite`, since they are being
    /// read, by whatever name. Trying to is `CIOError` `NotAllowed` with "uri".
    void protect(std::vector<yx::CURI> const& files);

    /// The locks on what was made.
    FileLocks* getLocks() { return m_locks.get(); }

    /// What was protected, as normalised URIs.
    std::vector<yx::CURI> const& getProtectedFiles() const { return m_protected; }

    /// Opening for writing a file that was there before is `CIOError` `AlreadyExists` with "uri".
    /// One that was made here and that somebody has deleted or replaced is neither made again nor
    /// opened: the errors are those of `verifyFilesAreThere`. Which file is open is asked of the
    /// stream (`identifyStream`), since the name may be another file's at any moment.
    yx::P<yx::IIOStream> openFile(yx::CURI const& uri, yx::IIOStream::Access access,
                                  unsigned int* options) override;

    /// One that was made here and that somebody has deleted or replaced is an error as for
    /// `verifyFilesAreThere`.
    bool fileExists(yx::CURI const& uri) override;

    /// Deleting a file that was there before is `CIOError` `AlreadyExists` with "uri"; one that
    /// replaced a file that was made here stays. The latter is then missing: without
    /// `ignoreMissing` that is `IOFailure` as for `verifyFilesAreThere`.
    void deleteFile(yx::CURI const& uri, bool ignoreMissing) override;

private:
    /// A file that was made here, as far as the opening got.
    struct MadeFile {
        yx::CURI uri;
        bool isThere = false;

        /// Only of a file of a store: that of the file as it was made, before it had been looked at
        /// by its name.
        std::optional<FileIdentity> identity;
    };

    MadeFile* findMade(yx::CURI const& uri);
    MadeFile& makeFile(yx::CURI const& uri);
    yx::P<yx::IIOStream> openMade(MadeFile const& file, yx::CURI const& uri,
                                  yx::IIOStream::Access access, unsigned int const* options);
    bool isAnother(MadeFile const& file) const;
    void verifyIsThere(MadeFile const& file) const;
    void verifyIsOpen(MadeFile const& file, yx::IIOStream& stream) const;
    void verifyMayReplace(yx::CURI const& uri) const;

    yx::P<yx::IFileSystem> m_fileSystem;
    yx::P<FileLocks> m_locks = yx::makeObject<FileLocks>();
    bool m_overwrite;
    CancelFlag const* m_cancel;
    bool m_kept = false;
    std::vector<MadeFile> m_made;
    std::vector<yx::CURI> m_protected;
};

} // namespace kelm::host

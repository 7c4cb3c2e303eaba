#pragma once

#include <optional>
#include <vector>

#include "host/disk/file_locks.h"
#include "host/store/kept_files.h"
#include "host/system/file_identity.h"
#include "yx/file_system.h"

namespace kelm::host {

/// The files of a disk that is to be replaced by a new one of its name. The new disk replaces those
/// whose names it needs too; the others would stay behind for good, and are removed here once the
/// new disk is complete. Until then the former disk can be kept.
///
/// A descriptor may name any file of the machine, so only a file counts that is what a splitting of
/// this disk would have made: one in the disk's folder, with the disk's name, "-s", digits and the
/// disk's extension, that is a sparse extent without a descriptor of its own. The disk's digest file
/// counts too, if it is one.
class FormerDisk {
public:
    /// Notes the files. There are none if no disk can be read at `uri`; no password is needed.
    FormerDisk(yx::IFileSystem* fileSystem, yx::CURI const& uri);

    /// The files that may be removed.
    std::vector<yx::CURI> getFiles() const;

    /// Keeps the main file and the others, if they are files of a store, as
    /// `KeptFiles` does: unless `removeFilesBut` is called, they are put back when this ends, which
    /// must be after the files of the new disk are gone. `locks`, those of the new disk, hold them
    /// from now on, so that nobody else uses or replaces them: `CLockFileError` as
    /// `FileLocks::take` if somebody does.
    void keep(FileLocks& locks);

    /// Deletes the files but those in `kept`, which are normalised, and those that `keep` has kept:
    /// the new disk is complete. A file of a store that somebody has put under one of the names
    /// meanwhile stays. What cannot be deleted is logged as a warning.
    void removeFilesBut(std::vector<yx::CURI> const& kept);

private:
    struct OwnFile {
        yx::CURI uri;
        std::optional<FileIdentity> identity;
    };

    void noteExtentFiles();
    void noteDigestFile();

    yx::P<yx::IFileSystem> m_fileSystem;
    yx::CURI m_mainFile;
    std::vector<OwnFile> m_files;
    std::optional<KeptFiles> m_kept;
};

} // namespace kelm::host

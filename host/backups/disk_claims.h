#pragma once

#include <vector>

#include "host/backups/disk_parts.h"
#include "host/disk/file_locks.h"
#include "yx/lock_file.h"

namespace kelm::host {

/// Disks that nobody else uses while this lives, held without opening them: by their lock files and
/// by locks on their files. A disk that somebody uses is `yx::CLockFileError`, as it is for who
/// opens it.
class DiskClaims {
public:
    /// Holds nothing yet.
    explicit DiskClaims(yx::IFileSystem* fileSystem) : m_fileSystem(fileSystem) {}

    /// Claims a disk and the files of it that are there.
    void add(DiskParts const& disk);

    /// Claims the name of a disk that is not there, or not yet.
    void addName(yx::CURI const& mainFile);

    /// Claims a file, if it is there.
    void addFile(yx::CURI const& file);

private:
    yx::P<yx::IFileSystem> m_fileSystem;
    std::vector<yx::P<yx::CLockFile>> m_lockFiles;
    FileLocks m_locks;
};

} // namespace kelm::host

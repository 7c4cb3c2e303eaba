#pragma once

#include <vector>

#include "host/backups/disk_parts.h"
#include "host/disk/file_locks.h"
#include "yx/lock_file.h"

namespace kelm::host {

/// Disks that nobody else uses while this lives, or that nobody changes, held without opening them:
/// by their lock files and by locks on their files. A disk that somebody uses is
/// `yx::CLockFileError`, as it is for who opens it.
class DiskClaims {
public:
    /// Holds nothing yet. With shared locks others may read the disks.
    explicit DiskClaims(yx::IFileSystem* fileSystem,
                        FileLock::Type type = FileLock::Type::Exclusive)
        : m_fileSystem(fileSystem), m_type(type) {}

    /// Claims a disk and the files of it that are there.
    void add(DiskParts const& disk);

    /// Claims the name of a disk that is not there, or not yet.
    void addName(yx::CURI const& mainFile);

    /// Claims a file, if it is there.
    void addFile(yx::CURI const& file);

private:
    yx::P<yx::IFileSystem> m_fileSystem;
    FileLock::Type m_type;
    std::vector<yx::P<yx::CLockFile>> m_lockFiles;
    FileLocks m_locks;
};

} // namespace kelm::host

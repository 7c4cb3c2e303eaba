#pragma once

#include <vector>

#include "yx/file_system.h"

namespace kelm::host {

/// The extent files of a disk that is to be replaced by a new one of its name. The new disk
/// replaces those whose names it needs too; the others would stay behind for good, and are removed
/// here once the new disk is complete.
///
/// A descriptor may name any file of the machine, so only a file counts that is what a splitting of
/// this disk would have made: one in the disk's folder, with the disk's name, "-s", digits and the
/// disk's extension, that is a sparse extent without a descriptor of its own.
class FormerDisk {
public:
    /// Notes the files. There are none if no disk can be read at `uri`; no password is needed.
    FormerDisk(yx::IFileSystem* fileSystem, yx::CURI const& uri);

    /// The files that may be removed.
    std::vector<yx::CURI> const& getExtentFiles() const { return m_extentFiles; }

    /// Deletes the files but those in `kept`, which are normalised. What cannot be deleted is
    /// logged as a warning.
    void removeFilesBut(std::vector<yx::CURI> const& kept);

private:
    void noteExtentFiles(yx::CURI const& uri);

    yx::P<yx::IFileSystem> m_fileSystem;
    std::vector<yx::CURI> m_extentFiles;
};

} // namespace kelm::host

#pragma once

#include <map>

#include "yx/memory_file_system.h"

namespace kelm::fuzz {

/// Files that lie around the folder of a disk and are none of its own: copies of the disk's files
/// under the same names, in folders that damaged names lead to. Nothing that is done to the disk
/// may make, change or delete a file there.
class Canary {
public:
    /// Puts the files in place. `files` must outlive the object.
    explicit Canary(yx::CMemoryFileSystem& files);

    /// Ends the run as a crash does if anything outside of the disk's folder has changed. Every
    /// disk must be closed by then, since a parent may lie elsewhere and has a lock file there
    /// while it is read.
    void verifyUntouched() const;

private:
    using Files = std::map<yx::String, yx::TBuffer<unsigned char>>;

    Files collect() const;

    yx::CMemoryFileSystem& m_files;
    Files m_before;
};

} // namespace kelm::fuzz

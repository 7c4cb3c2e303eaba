#pragma once

#include "host/system/password.h"
#include "kelm/disk/disk.h"

namespace kelm::host {

/// A disk as its files hold it, for reading what is stored there while changes in memory cannot be
/// written. The library brings the changes of one grain to the file before it opens the next, so a
/// device without room would otherwise refuse to read.
///
/// For the holder of the disk's lock alone: the files are opened again without it. What was changed
/// since the last flush may be missing here or be there in part; do not read that.
class StoredView {
public:
    /// Opens nothing yet. `mainFileURI` names the lock that the caller holds.
    StoredView(yx::IFileSystem* fileSystem, yx::CURI const& mainFileURI,
               yx::String const& password);

    /// The disk, opened for reading where that was not done. Errors are those of `CVMDKDisk`.
    CVMDKDisk& getDisk();

    /// Closes the disk: what is in the files has changed, or it is not needed any more.
    void close() { m_disk.reset(); }

private:
    yx::P<yx::IFileSystem> m_fileSystem;
    yx::CURI m_mainFileURI;
    Password m_password;
    yx::P<CVMDKDisk> m_disk;
};

} // namespace kelm::host

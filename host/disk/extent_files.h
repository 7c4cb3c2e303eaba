#pragma once

#include <vector>

#include "host/disk/disk_layout.h"
#include "yx/buffer.h"
#include "yx/file_system.h"

namespace kelm::host {

/// Makes sure that the extent files of a disk that is written to are there, and whole.
///
/// The files of some disks come into being at their first write. Such a file is on the device with
/// all its tables before grains go in, so that a power cut leaves no grain in a file that cannot be
/// opened. The files of all other disks must be there from the start: the library would put an
/// empty file in the place of a missing one.
class ExtentFiles {
public:
    /// `mainFileURI` is normalised. `layout` must outlive the object. With `areMadeOnDemand`, all
    /// files but the first may be missing. `keyHash` is that of `makeExtentFileContent`.
    ExtentFiles(yx::IFileSystem* fileSystem, yx::CURI const& mainFileURI, DiskLayout const& layout,
                bool areMadeOnDemand, yx::TBuffer<unsigned char> const& keyHash);

    /// Whether the file of an extent may be missing, since nothing has been written there yet.
    bool areMadeOnDemand() const { return m_areMadeOnDemand; }

    /// Throws `CIOError` `NotFound` with "uri" for the first file that is missing and should not
    /// be.
    void verifyExist() const;

    /// Where an extent that begins at a position ends, if its file is missing and may be; otherwise
    /// the position.
    __int64 findMissingEnd(__int64 positionBytes) const;

    /// Puts right what a power cut can leave in the files. Comes before all other writing.
    void recover();

    /// Makes the files of the extents that a range reaches and that are still to be made. After a
    /// failure the next call tries again.
    void makeReached(__int64 positionBytes, __int64 bytes);

private:
    bool mayBeMissing(std::size_t index) const { return m_areMadeOnDemand && index > 0; }
    void make(DiskExtent const& extent);

    yx::P<yx::IFileSystem> m_fileSystem;
    yx::CURI m_mainFileURI;
    DiskLayout const& m_layout;
    bool m_areMadeOnDemand;
    yx::TBuffer<unsigned char> m_keyHash;

    /// For each extent, whether its file is there; if not, it may be, or not yet.
    std::vector<bool> m_isThere;
};

} // namespace kelm::host

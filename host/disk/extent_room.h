#pragma once

#include <functional>
#include <vector>

#include "host/disk/disk_layout.h"
#include "yx/file_system.h"

namespace kelm::host {

/// A file of a disk cannot grow beyond this: tables name sectors in 32 bits.
constexpr __int64 kMaxExtentFileBytes = 0x20000000000;

/// Keeps the extent files below 2 TiB, where table entries would drop bits without a word.
///
/// It counts every write as new grains of the largest size, and looks at a file itself only where
/// that count comes near the limit.
class ExtentRoom {
public:
    /// `layout` must outlive the object. `worstCaseGrainBytes` is what a grain can take in a file
    /// at most. `flush` brings what was written to the files, so that their lengths count.
    ExtentRoom(yx::IFileSystem* fileSystem, DiskLayout const& layout, __int64 worstCaseGrainBytes,
               std::function<void()> flush);

    /// Comes before each write of such a range. A file that could then outgrow the limit is
    /// `CIOError` `NoSpace` with "uri" and "length", and nothing may be written.
    void reserve(__int64 positionBytes, __int64 bytes);

private:
    void reserveInExtent(std::size_t index, __int64 growthBytes);

    yx::P<yx::IFileSystem> m_fileSystem;
    DiskLayout const& m_layout;
    __int64 m_worstCaseGrainBytes;
    std::function<void()> m_flush;

    /// For each extent, no less than the length of its file, with all that is still on its way; -1
    /// if not known.
    std::vector<__int64> m_lengthBoundsBytes;
};

} // namespace kelm::host

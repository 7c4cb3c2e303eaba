#pragma once

#include <functional>
#include <optional>
#include <vector>

#include "host/disk/disk_layout.h"
#include "yx/file_system.h"

namespace kelm::host {

/// A file of a disk cannot grow beyond this: tables name sectors in 32 bits.
constexpr __int64 kMaxExtentFileBytes = 0x20000000000;

/// Keeps the extent files below 2 TiB, where table entries would drop bits without a word, and below
/// what their store lets a file become.
///
/// It counts every write as new grains of the largest size, and looks at a file itself only where
/// that count comes near the limit.
class ExtentRoom {
public:
    /// What the grains of one extent take, each of which has a size of its own.
    struct GrainRoom {
        /// In the disk.
        __int64 grainSizeBytes;

        /// In the file, at most.
        __int64 worstCaseBytes;
    };

    /// `layout` must outlive the object. `grainRoomOf` is asked once for each extent that is
    /// reached; what it throws passes. `flush` brings what was written to the files, so that their
    /// lengths count.
    ExtentRoom(yx::IFileSystem* fileSystem, DiskLayout const& layout,
               std::function<GrainRoom(DiskExtent const&)> grainRoomOf,
               std::function<void()> flush);

    /// Comes before each write of such a range. A file that could then outgrow its limit is
    /// `CIOError` `NoSpace` with "uri" and "length", and nothing may be written.
    void reserve(__int64 positionBytes, __int64 bytes);

private:
    GrainRoom const& grainRoomAt(std::size_t index);
    __int64 lengthLimitAt(std::size_t index);
    void reserveInExtent(std::size_t index, __int64 growthBytes);

    yx::P<yx::IFileSystem> m_fileSystem;
    DiskLayout const& m_layout;
    std::function<GrainRoom(DiskExtent const&)> m_grainRoomOf;
    std::function<void()> m_flush;

    /// For each extent, once it is known.
    std::vector<std::optional<GrainRoom>> m_grainRooms;

    /// For each extent, how long its file may become with room for its trail; -1 if not known.
    std::vector<__int64> m_lengthLimitsBytes;

    /// For each extent, no less than the length of its file, with all that is still on its way; -1
    /// if not known.
    std::vector<__int64> m_lengthBoundsBytes;
};

} // namespace kelm::host

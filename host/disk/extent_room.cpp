#include "host/disk/extent_room.h"

#include <algorithm>
#include <cassert>
#include <utility>

#include "host/store/free_space.h"
#include "yx/error.h"

namespace kelm::host {

namespace {

constexpr __int64 kTrailBytes = __int64{kTrailSectors} * kSectorSizeBytes;

constexpr char kCopyAdvice[] = "Copy the disk to one that is split over several files.";

[[noreturn]] void throwNoRoom(yx::CURI const& uri, __int64 lengthBytes, __int64 limitBytes) {
    bool const isLimitOfTables = limitBytes + kTrailBytes == kMaxExtentFileBytes;
    yx::String const limit = isLimitOfTables
                                 ? yx::String("the 2 TiB that one file of a disk can hold. ")
                                 : "the " + yx::toString(limitBytes + kTrailBytes) +
                                       " bytes that a file may have there. ";
    throw yx::CIOError(
        yx::CIOError::NoSpace, "The file could grow beyond " + limit + kCopyAdvice,
        yx::CProps().add("uri", uri.toString(true)).add("length", yx::toString(lengthBytes)),
        nullptr);
}

} // namespace

ExtentRoom::ExtentRoom(yx::IFileSystem* fileSystem, DiskLayout const& layout,
                       std::function<GrainRoom(DiskExtent const&)> grainRoomOf,
                       std::function<void()> flush)
    : m_fileSystem(fileSystem),
      m_layout(layout),
      m_grainRoomOf(std::move(grainRoomOf)),
      m_flush(std::move(flush)),
      m_grainRooms(layout.getExtents().size()),
      m_lengthLimitsBytes(layout.getExtents().size(), -1),
      m_lengthBoundsBytes(layout.getExtents().size(), -1) {}

ExtentRoom::GrainRoom const& ExtentRoom::grainRoomAt(std::size_t index) {
    std::optional<GrainRoom>& room = m_grainRooms[index];
    if (!room)
        room = m_grainRoomOf(m_layout.getExtents()[index]);
    assert(room->grainSizeBytes > 0 && room->worstCaseBytes >= room->grainSizeBytes);
    return *room;
}

void ExtentRoom::reserve(__int64 positionBytes, __int64 bytes) {
    __int64 const endBytes = positionBytes + bytes;
    std::vector<DiskExtent> const& extents = m_layout.getExtents();
    for (std::size_t i = m_layout.findExtent(positionBytes);
         i < extents.size() && positionBytes < endBytes; ++i) {
        __int64 const partEndBytes = std::min(endBytes, extents[i].endBytes);
        // A range touches two grains more than its length says.
        GrainRoom const& room = grainRoomAt(i);
        __int64 const grains = (partEndBytes - positionBytes) / room.grainSizeBytes + 2;
        reserveInExtent(i, grains * room.worstCaseBytes);
        positionBytes = partEndBytes;
    }
}

/// The largest length of a file that can still get its trail.
__int64 ExtentRoom::lengthLimitAt(std::size_t index) {
    __int64& limitBytes = m_lengthLimitsBytes[index];
    if (limitBytes < 0) {
        __int64 const storeBytes = getMaxFileLengthBytes(m_layout.getExtents()[index].uri);
        limitBytes = std::min(kMaxExtentFileBytes, storeBytes) - kTrailBytes;
    }
    return limitBytes;
}

void ExtentRoom::reserveInExtent(std::size_t index, __int64 growthBytes) {
    assert(growthBytes > 0);
    __int64 const limitBytes = lengthLimitAt(index);
    __int64& boundBytes = m_lengthBoundsBytes[index];
    if (boundBytes >= 0 && boundBytes + growthBytes <= limitBytes) {
        boundBytes += growthBytes;
        return;
    }
    // The bound counts every write as a new grain; near the limit only the file itself knows.
    m_flush();
    boundBytes = -1;
    yx::CURI const& uri = m_layout.getExtents()[index].uri;
    // A file that is made on demand is measured once it is there, with its tables.
    if (!m_fileSystem->fileExists(uri))
        return;
    unsigned int reserved = 0;
    __int64 const lengthBytes =
        m_fileSystem->openFile(uri, yx::IIOStream::ReadOnly, &reserved)->getLength();
    boundBytes = lengthBytes;
    if (lengthBytes + growthBytes > limitBytes)
        throwNoRoom(uri, lengthBytes, limitBytes);
    boundBytes += growthBytes;
    assert(boundBytes >= lengthBytes && boundBytes <= limitBytes);
}

} // namespace kelm::host

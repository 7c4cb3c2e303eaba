#include "host/disk/chain_grains.h"

#include <algorithm>
#include <cassert>

namespace kelm::host {

namespace {

bool holdsGrainAt(CVMDKDisk& disk, __int64 positionBytes) {
    disk.seek(positionBytes);
    return disk.isGrainWrittenAndIndependentOfParent();
}

} // namespace

ChainGrains::ChainGrains(yx::IFileSystem* fileSystem, CVMDKDisk& disk, DiskLayout const& layout)
    : m_fileSystem(fileSystem) {
    m_levels.emplace_back(fileSystem, layout,
                          disk.getDescriptor()->getYxCreateExtentFilesOnDemand());
}

ExtentGrains& ChainGrains::levelOf(std::size_t level, CVMDKDisk& disk) {
    assert(level <= m_levels.size());
    if (level == m_levels.size()) {
        m_levels.emplace_back(m_fileSystem.get(), DiskLayout(disk),
                              disk.getDescriptor()->getYxCreateExtentFilesOnDemand());
    }
    assert(m_levels[level].getLayout().getSizeBytes() == disk.getSizeBytes());
    return m_levels[level];
}

bool ChainGrains::hasFormOfDisk(DiskLayout const& parent) const {
    DiskExtent const& own = m_levels.front().getLayout().getExtents().front();
    DiskExtent const& other = parent.getExtents().front();
    return own.grainSizeBytes == other.grainSizeBytes && own.isCompressed == other.isCompressed;
}

bool ChainGrains::isWritten(CVMDKDisk& disk, __int64 positionBytes, __int64 bytes) {
    return isWrittenFrom(0, disk, positionBytes, bytes);
}

bool ChainGrains::isWrittenFrom(std::size_t level, CVMDKDisk& disk, __int64 positionBytes,
                                __int64 bytes) {
    ExtentGrains& grains = levelOf(level, disk);
    // A child may be larger than its parent.
    bytes = std::min(bytes, grains.getLayout().getSizeBytes() - positionBytes);
    while (bytes > 0) {
        FileGrain const grain = grains.at(positionBytes);
        if (holdsGrainAt(disk, positionBytes))
            return true;
        __int64 const partBytes = std::min(bytes, grain.endBytes - positionBytes);
        yx::P<CVMDKDisk> const parent = disk.getParentDisk();
        __int64 const offsetBytes = positionBytes - grain.startBytes;
        if (parent &&
            isWrittenFrom(level + 1, *parent, grain.parentStartBytes + offsetBytes, partBytes))
            return true;
        positionBytes += partBytes;
        bytes -= partBytes;
    }
    return false;
}

__int64 ChainGrains::countUnwrittenFrom(std::size_t level, CVMDKDisk& disk, __int64 positionBytes,
                                        __int64 maxBytes) {
    ExtentGrains& grains = levelOf(level, disk);
    // A child may be larger than its parent.
    if (positionBytes >= grains.getLayout().getSizeBytes())
        return maxBytes;
    // Where it is one, so are those behind it in its extent: each has the same place in the parent.
    if (!grains.at(positionBytes).isGrainOfDisk)
        return 0;
    disk.seek(positionBytes);
    __int64 const bytes = disk.countBytesWithoutData(maxBytes);
    yx::P<CVMDKDisk> const parent = bytes > 0 ? disk.getParentDisk() : nullptr;
    return parent ? countUnwrittenFrom(level + 1, *parent, positionBytes, bytes) : bytes;
}

bool ChainGrains::isWrittenHere(CVMDKDisk& disk, __int64 positionBytes, __int64 bytes) {
    for (__int64 const endBytes = positionBytes + bytes; positionBytes < endBytes;
         positionBytes = at(positionBytes).endBytes) {
        if (!holdsGrainAt(disk, positionBytes))
            return false;
    }
    return true;
}

bool ChainGrains::isPassedOn(CVMDKDisk& disk, __int64 positionBytes, __int64 bytes) {
    for (__int64 const endBytes = positionBytes + bytes; positionBytes < endBytes;) {
        FileGrain const grain = at(positionBytes);
        if (grain.parentStartBytes != grain.startBytes || holdsGrainAt(disk, positionBytes))
            return false;
        positionBytes = grain.endBytes;
    }
    return true;
}

/// Whether the grain can be read prepared, and the disk that holds it; null if none does.
bool ChainGrains::findPrepared(CVMDKDisk& disk, __int64 grainIndex, Holder& found) {
    DiskLayout const& layout = m_levels.front().getLayout();
    __int64 const startBytes = grainIndex * layout.getGrainSizeBytes();
    bool const isInDisk = grainIndex >= 0 && grainIndex < layout.getGrainCount();
    if (!isInDisk || !at(startBytes).isGrainOfDisk)
        return false;
    yx::P<CVMDKDisk> holder(&disk);
    for (std::size_t level = 1; !holdsGrainAt(*holder, startBytes); ++level) {
        holder = holder->getParentDisk();
        if (!holder)
            return true;
        ++found.level;
        ExtentGrains& parent = levelOf(level, *holder);
        if (!hasFormOfDisk(parent.getLayout()))
            return false;
        // Past a parent's end, the library makes up a grain of zeros.
        if (startBytes >= parent.getLayout().getSizeBytes())
            return true;
        if (!parent.at(startBytes).isGrainOfDisk)
            return false;
    }
    found.disk = holder;
    return true;
}

} // namespace kelm::host

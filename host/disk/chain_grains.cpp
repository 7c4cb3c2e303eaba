#include "host/disk/chain_grains.h"

#include <algorithm>
#include <cassert>

#include "host/disk/chain_map.h"

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

/// Opens parents as reading without a map would.
yx::P<CVMDKDisk> const& ChainGrains::openLevel(CVMDKDisk& disk, int level) {
    assert(level > 0);
    auto const wanted = static_cast<std::size_t>(level);
    while (m_parents.size() < wanted) {
        yx::P<CVMDKDisk> parent =
            m_parents.empty() ? disk.getParentDisk() : m_parents.back()->getParentDisk();
        assert(parent);
        m_parents.push_back(std::move(parent));
    }
    return m_parents[wanted - 1];
}

/// What no disk holds is asked of each.
void ChainGrains::openChain(CVMDKDisk& disk) {
    if (m_isChainOpen)
        return;
    if (m_map->getLevelCount() > 1)
        openLevel(disk, m_map->getLevelCount() - 1);
    m_isChainOpen = true;
}

std::optional<bool> ChainGrains::tryIsWrittenByMap(CVMDKDisk& disk, __int64 positionBytes,
                                                   __int64 bytes) {
    if (!m_map)
        return std::nullopt;
    __int64 const grainSizeBytes = m_map->getGrainSizeBytes();
    __int64 const endBytes = positionBytes + bytes;
    for (__int64 grain = positionBytes / grainSizeBytes; grain * grainSizeBytes < endBytes;
         ++grain) {
        std::optional<MappedGrain> const found = m_map->find(grain);
        if (!found)
            return std::nullopt;
        if (found->isHeld())
            return true;
    }
    openChain(disk);
    return false;
}

bool ChainGrains::tryReadByMap(CVMDKDisk& disk, __int64 positionBytes, void* buffer, int bytes) {
    if (!m_map)
        return false;
    auto* target = static_cast<unsigned char*>(buffer);
    __int64 const grainSizeBytes = m_map->getGrainSizeBytes();
    __int64 const endBytes = positionBytes + bytes;
    while (positionBytes < endBytes) {
        __int64 grain = positionBytes / grainSizeBytes;
        std::optional<MappedGrain> const first = m_map->find(grain);
        if (!first)
            return false;
        // Neighbours in one disk are read at once.
        for (++grain; grain * grainSizeBytes < endBytes; ++grain) {
            std::optional<MappedGrain> const next = m_map->find(grain);
            if (!next || next->level != first->level)
                break;
        }
        int const partBytes =
            static_cast<int>(std::min(endBytes, grain * grainSizeBytes) - positionBytes);
        if (first->isHeld()) {
            CVMDKDisk& holder = first->level == 0 ? disk : *openLevel(disk, first->level);
            holder.seek(positionBytes);
            holder.read(target, partBytes);
        } else {
            openChain(disk);
            std::fill_n(target, partBytes, static_cast<unsigned char>(0));
        }
        positionBytes += partBytes;
        target += partBytes;
    }
    return true;
}

bool ChainGrains::isWritten(CVMDKDisk& disk, __int64 positionBytes, __int64 bytes) {
    if (std::optional<bool> const isWritten = tryIsWrittenByMap(disk, positionBytes, bytes))
        return *isWritten;
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

__int64 ChainGrains::countBytesNotIn(std::size_t level, CVMDKDisk& disk, __int64 positionBytes,
                                     __int64 maxBytes) {
    // Where it is one, so are those behind it in its extent: each has the same place in the parent.
    if (!levelOf(level, disk).at(positionBytes).isGrainOfDisk)
        return 0;
    disk.seek(positionBytes);
    return disk.countBytesWithoutData(maxBytes);
}

__int64 ChainGrains::countUnwrittenFrom(std::size_t level, CVMDKDisk& disk, __int64 positionBytes,
                                        __int64 maxBytes) {
    // A child may be larger than its parent.
    if (positionBytes >= levelOf(level, disk).getLayout().getSizeBytes())
        return maxBytes;
    __int64 const bytes = countBytesNotIn(level, disk, positionBytes, maxBytes);
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

std::optional<ChainGrains::Holder> ChainGrains::findPrepared(CVMDKDisk& disk, __int64 grainIndex) {
    DiskLayout const& layout = m_levels.front().getLayout();
    __int64 const startBytes = grainIndex * layout.getGrainSizeBytes();
    bool const isInDisk = grainIndex >= 0 && grainIndex < layout.getGrainCount();
    if (!isInDisk)
        return std::nullopt;
    FileGrain const own = at(startBytes);
    if (!own.isGrainOfDisk)
        return std::nullopt;
    std::optional<MappedGrain> const mapped = m_map ? m_map->find(grainIndex) : std::nullopt;
    if (mapped && mapped->isHeld()) {
        if (mapped->extent->isCompressed != own.isCompressed)
            return std::nullopt;
        yx::P<CVMDKDisk> const holder =
            mapped->level == 0 ? yx::P<CVMDKDisk>(&disk) : openLevel(disk, mapped->level);
        holder->seek(startBytes);
        return Holder{holder, mapped->level};
    }
    yx::P<CVMDKDisk> holder(&disk);
    int level = 0;
    while (!holdsGrainAt(*holder, startBytes)) {
        holder = holder->getParentDisk();
        if (!holder)
            return Holder();
        ExtentGrains& parent = levelOf(static_cast<std::size_t>(++level), *holder);
        if (!hasFormOfDisk(parent.getLayout()))
            return std::nullopt;
        // Past a parent's end, the library makes up a grain of zeros.
        if (startBytes >= parent.getLayout().getSizeBytes())
            return Holder();
        if (!parent.at(startBytes).isGrainOfDisk)
            return std::nullopt;
    }
    return Holder{holder, level};
}

} // namespace kelm::host

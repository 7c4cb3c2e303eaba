#include "host/digest/chain_digests.h"

#include <algorithm>
#include <cassert>

#include "host/disk/parent_chain.h"
#include "yx/log.h"

namespace kelm::host {

namespace {

/// Whether every grain of the disk's files is a whole grain of a disk of grains of that size.
bool hasWholeGrains(SafeDisk& disk, __int64 grainSizeBytes) {
    std::vector<DiskExtent> const& extents = disk.listExtents();
    return disk.getSizeBytes() % grainSizeBytes == 0 &&
           std::all_of(extents.begin(), extents.end(), [&](DiskExtent const& extent) {
               return extent.getSizeBytes() == 0 ||
                      (extent.startBytes % grainSizeBytes == 0 &&
                       disk.getFileGrain(extent.startBytes).wholeSizeBytes == grainSizeBytes);
           });
}

} // namespace

std::unique_ptr<ChainDigests> ChainDigests::open(yx::IFileSystem* fileSystem, SafeDisk& child,
                                                 yx::String const& password) {
    std::unique_ptr<ChainDigests> chain = openSome(fileSystem, child, password);
    return chain && chain->m_isWhole ? std::move(chain) : nullptr;
}

std::unique_ptr<ChainDigests> ChainDigests::openSome(yx::IFileSystem* fileSystem, SafeDisk& child,
                                                     yx::String const& password) {
    if (!child.hasParent() || !hasWholeGrains(child, child.getGrainSizeBytes()))
        return nullptr;
    std::unique_ptr<ChainDigests> chain(new ChainDigests);
    chain->m_isWhole = chain->tryAddParents(fileSystem, child, password);
    return chain->m_members.empty() ? nullptr : std::move(chain);
}

std::unique_ptr<ChainDigests> ChainDigests::openOfDisk(yx::IFileSystem* fileSystem, SafeDisk& disk,
                                                       yx::String const& password) {
    std::unique_ptr<ChainDigests> chain(new ChainDigests);
    if (!chain->tryAdd(fileSystem, disk, disk.getGrainSizeBytes()))
        return nullptr;
    chain->m_isWhole = !disk.hasParent() || chain->tryAddParents(fileSystem, disk, password);
    return chain;
}

bool ChainDigests::tryAddParents(yx::IFileSystem* fileSystem, SafeDisk& child,
                                 yx::String const& password) {
    m_openParents = openParents(fileSystem, child, password);
    return std::all_of(m_openParents.begin(), m_openParents.end(), [&](auto const& parent) {
        return tryAdd(fileSystem, *parent, child.getGrainSizeBytes());
    });
}

bool ChainDigests::tryAdd(yx::IFileSystem* fileSystem, SafeDisk& disk, __int64 grainSizeBytes) {
    if (!hasWholeGrains(disk, grainSizeBytes))
        return false;
    DiskDigests digests;
    try {
        digests = DiskDigests::open(fileSystem, disk);
    } catch (yx::CIOError const& error) {
        yx::logWarning(error, "The digests of a disk cannot be used.", "");
        return false;
    }
    if (!digests.areUpToDate() || digests.file->getHeader().grainSizeBytes != grainSizeBytes)
        return false;
    m_members.push_back({DigestKeys(disk.getDisk()), std::move(digests.file)});
    return true;
}

ChainDigests::Grain const& ChainDigests::find(__int64 grainIndex) {
    assert(grainIndex >= 0);
    __int64 const number = grainIndex / DigestHeader::kSectionGrains;
    if (number != m_sectionNumber)
        loadSection(number);
    return m_section[static_cast<std::size_t>(grainIndex % DigestHeader::kSectionGrains)];
}

__int64 ChainDigests::countAbsent(__int64 grainIndex, __int64 maxGrains) {
    if (!m_isWhole)
        return 0;
    __int64 end = grainIndex + maxGrains;
    try {
        for (Member const& member : m_members) {
            __int64 const next = member.digests->findNext(grainIndex);
            if (next >= 0)
                end = std::min(end, next);
        }
    } catch (yx::CIOError const& error) {
        // Who looks the grains up hears of it.
        error.nop();
        return 0;
    }
    return end - grainIndex;
}

std::optional<Digest> ChainDigests::findPlain(__int64 grainIndex) {
    Grain const& grain = find(grainIndex);
    if (!grain.isKnown || grain.holder < 0 || !arePlain(grain.holder))
        return std::nullopt;
    return grain.digest;
}

void ChainDigests::loadSection(__int64 number) {
    m_sectionNumber = number;
    Grain unknown;
    unknown.isKnown = false;
    m_section.assign(DigestHeader::kSectionGrains, m_isWhole ? Grain() : unknown);
    try {
        for (std::size_t place = 0; place < m_members.size(); ++place)
            mergeSection(place, number);
    } catch (yx::CIOError const& error) {
        yx::logWarning(error, "A part of the digests of a disk cannot be used.", "");
        m_section.assign(DigestHeader::kSectionGrains, unknown);
    }
}

/// Adds what a disk has and none that is nearer.
void ChainDigests::mergeSection(std::size_t place, __int64 number) {
    __int64 const first = number * DigestHeader::kSectionGrains;
    __int64 const end = first + DigestHeader::kSectionGrains;
    DigestFile& digests = *m_members[place].digests;
    for (__int64 index = digests.findNext(first); index >= 0 && index < end;
         index = digests.findNext(index + 1)) {
        Grain& grain = m_section[static_cast<std::size_t>(index - first)];
        if (grain.holder != -1)
            continue;
        grain.holder = static_cast<int>(place);
        grain.isKnown = true;
        grain.digest = *digests.find(index);
    }
}

std::vector<std::unique_ptr<GrainHasher>> ChainDigests::makeHashers() const {
    std::vector<std::unique_ptr<GrainHasher>> hashers;
    for (Member const& member : m_members)
        hashers.push_back(std::make_unique<GrainHasher>(member.keys));
    return hashers;
}

} // namespace kelm::host

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
    if (!child.hasParent() || !hasWholeGrains(child, child.getGrainSizeBytes()))
        return nullptr;
    std::unique_ptr<ChainDigests> chain(new ChainDigests);
    for (std::unique_ptr<SafeDisk>& parent : openParents(fileSystem, child, password)) {
        if (!chain->tryAdd(fileSystem, std::move(parent), child.getGrainSizeBytes()))
            return nullptr;
    }
    return chain;
}

bool ChainDigests::tryAdd(yx::IFileSystem* fileSystem, std::unique_ptr<SafeDisk> parent,
                          __int64 grainSizeBytes) {
    if (!hasWholeGrains(*parent, grainSizeBytes))
        return false;
    DiskDigests digests;
    try {
        digests = DiskDigests::open(fileSystem, *parent);
    } catch (yx::CIOError const& error) {
        yx::logWarning(error, "The digests of a parent cannot be used.", "");
        return false;
    }
    if (!digests.areUpToDate() || digests.file->getHeader().grainSizeBytes != grainSizeBytes)
        return false;
    DigestKeys const keys(parent->getDisk());
    m_parents.push_back({std::move(parent), keys, std::move(digests.file)});
    return true;
}

ChainDigests::Grain const& ChainDigests::find(__int64 grainIndex) {
    assert(grainIndex >= 0);
    __int64 const number = grainIndex / DigestHeader::kSectionGrains;
    if (number != m_sectionNumber)
        loadSection(number);
    return m_section[static_cast<std::size_t>(grainIndex % DigestHeader::kSectionGrains)];
}

std::optional<Digest> ChainDigests::findPlain(__int64 grainIndex) {
    Grain const& grain = find(grainIndex);
    if (!grain.isKnown || grain.parent < 0 ||
        m_parents[static_cast<std::size_t>(grain.parent)].keys.isKeyed)
        return std::nullopt;
    return grain.digest;
}

void ChainDigests::loadSection(__int64 number) {
    m_sectionNumber = number;
    m_section.assign(DigestHeader::kSectionGrains, Grain());
    try {
        for (std::size_t parent = 0; parent < m_parents.size(); ++parent)
            mergeSection(parent, number);
    } catch (yx::CIOError const& error) {
        yx::logWarning(error, "A part of the digests of a parent cannot be used.", "");
        Grain unknown;
        unknown.isKnown = false;
        m_section.assign(DigestHeader::kSectionGrains, unknown);
    }
}

/// Adds what a parent has and none that is nearer.
void ChainDigests::mergeSection(std::size_t parent, __int64 number) {
    __int64 const first = number * DigestHeader::kSectionGrains;
    __int64 const end = first + DigestHeader::kSectionGrains;
    DigestFile& digests = *m_parents[parent].digests;
    for (__int64 index = digests.findNext(first); index >= 0 && index < end;
         index = digests.findNext(index + 1)) {
        Grain& grain = m_section[static_cast<std::size_t>(index - first)];
        if (grain.parent != -1)
            continue;
        grain.parent = static_cast<int>(parent);
        grain.digest = *digests.find(index);
    }
}

std::vector<std::unique_ptr<GrainHasher>> ChainDigests::makeHashers() const {
    std::vector<std::unique_ptr<GrainHasher>> hashers;
    for (Parent const& parent : m_parents)
        hashers.push_back(std::make_unique<GrainHasher>(parent.keys));
    return hashers;
}

} // namespace kelm::host

#include "host/disk/disk_layout.h"

#include <algorithm>
#include <cassert>

#include "kelm/kelm.h"

namespace kelm::host {

std::vector<DiskExtent> listDescribedExtents(CVMDKDescriptor const& descriptor,
                                             yx::CURI const& mainFile, __int64 grainSizeBytes,
                                             bool isCompressed) {
    yx::TArray<yx::P<CVMDKExtentInfo>> infos;
    descriptor.getExtentEntries(infos);
    yx::CURI const folder = mainFile.getParent();
    std::vector<DiskExtent> extents;
    extents.reserve(static_cast<std::size_t>(infos.getSize()));
    __int64 startBytes = 0;
    for (yx::P<CVMDKExtentInfo> const& info : infos) {
        __int64 const sizeSectors = info->getSizeSectors();
        if (sizeSectors < 0 || sizeSectors > kMaxPositionSectors - startBytes / kSectorSizeBytes) {
            throw yx::CIOError(yx::CIOError::CorruptData,
                               "Invalid extent size in VMDK descriptor: " +
                                   yx::toString(sizeSectors),
                               yx::CProps().add("uri", mainFile.toString(true)), nullptr);
        }
        __int64 const endBytes = startBytes + sizeSectors * kSectorSizeBytes;
        extents.push_back({vmdkFileReferenceToURI(folder, info->getFilename()), startBytes,
                           endBytes, grainSizeBytes, isCompressed});
        startBytes = endBytes;
    }
    return extents;
}

DiskLayout::DiskLayout(CVMDKDisk& disk)
    : DiskLayout(listDescribedExtents(*disk.getDescriptor(), disk.getMainFileURI(),
                                      disk.getGrainSizeBytes(), disk.getCompressed())) {
    assert(getSizeBytes() == disk.getSizeBytes());
}

DiskLayout::DiskLayout(std::vector<DiskExtent> extents) : m_extents(std::move(extents)) {
    verifyInvariants();
    for (DiskExtent const& extent : m_extents) {
        if (extent.startBytes % getGrainSizeBytes() != 0)
            m_areExtentsWholeGrains = false;
    }
}

void DiskLayout::verifyInvariants() const {
    assert(!m_extents.empty());
    assert(getGrainSizeBytes() > 0);
    [[maybe_unused]] __int64 expectedStartBytes = 0;
    for ([[maybe_unused]] DiskExtent const& extent : m_extents) {
        assert(extent.startBytes == expectedStartBytes);
        assert(extent.endBytes >= extent.startBytes);
        assert(extent.grainSizeBytes == getGrainSizeBytes());
        expectedStartBytes = extent.endBytes;
    }
}

std::size_t DiskLayout::findExtent(__int64 positionBytes) const {
    auto const found = std::upper_bound(
        m_extents.begin(), m_extents.end(), positionBytes,
        [](__int64 position, DiskExtent const& extent) { return position < extent.endBytes; });
    return static_cast<std::size_t>(found - m_extents.begin());
}

__int64 DiskLayout::getGrainCount() const {
    return (getSizeBytes() + getGrainSizeBytes() - 1) / getGrainSizeBytes();
}

int DiskLayout::getGrainBytesAt(__int64 grainStartBytes) const {
    return static_cast<int>(std::min(getGrainSizeBytes(), getSizeBytes() - grainStartBytes));
}

int DiskLayout::getPartBytes(__int64 positionBytes, __int64 bytes) const {
    __int64 const inGrain = positionBytes % getGrainSizeBytes();
    return static_cast<int>(std::min(bytes, getGrainSizeBytes() - inGrain));
}

} // namespace kelm::host

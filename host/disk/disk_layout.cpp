#include "host/disk/disk_layout.h"

#include <algorithm>
#include <cassert>
#include <utility>

#include "kelm/kelm.h"

namespace kelm::host {

namespace {

using ExtentInfos = yx::TArray<yx::P<CVMDKExtentInfo>>;

/// All but the names.
std::vector<DiskExtent> listStretches(ExtentInfos const& infos, yx::CURI const& mainFile,
                                      __int64 grainSizeBytes, bool isCompressed) {
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
        extents.push_back({yx::CURI(), startBytes, endBytes, grainSizeBytes, isCompressed});
        startBytes = endBytes;
    }
    return extents;
}

} // namespace

std::vector<DiskExtent> listDescribedExtents(CVMDKDescriptor const& descriptor,
                                             yx::CURI const& mainFile, __int64 grainSizeBytes,
                                             bool isCompressed) {
    ExtentInfos infos;
    descriptor.getExtentEntries(infos);
    std::vector<DiskExtent> extents = listStretches(infos, mainFile, grainSizeBytes, isCompressed);
    yx::CURI const folder = mainFile.getParent();
    for (int i = 0; i < infos.getSize(); ++i) {
        extents[static_cast<std::size_t>(i)].uri =
            vmdkFileReferenceToURI(folder, infos[i]->getFilename());
    }
    return extents;
}

std::vector<DiskExtent> listDescribedExtents(CVMDKDescriptor const& descriptor,
                                             yx::CURI const& mainFile,
                                             std::vector<yx::CURI>&& files, __int64 grainSizeBytes,
                                             bool isCompressed) {
    ExtentInfos infos;
    descriptor.getExtentEntries(infos);
    assert(files.size() == static_cast<std::size_t>(infos.getSize()));
    std::vector<DiskExtent> extents = listStretches(infos, mainFile, grainSizeBytes, isCompressed);
    for (std::size_t i = 0; i < extents.size(); ++i)
        extents[i].uri = std::move(files[i]);
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

#include "host/disk/extent_grains.h"

#include <algorithm>
#include <cassert>

#include "kelm/extent/internal/grain_position.h"
#include "kelm/kelm.h"
#include "yx/error.h"

namespace kelm::host {

ExtentGrains::ExtentGrains(yx::IFileSystem* fileSystem, DiskLayout const& layout,
                           bool createsFilesOnDemand)
    : m_fileSystem(fileSystem),
      m_layout(layout),
      m_createsFilesOnDemand(createsFilesOnDemand),
      m_forms(layout.getExtents().size()) {
    DiskExtent const& first = layout.getExtents().front();
    m_forms.front() = Form{first.grainSizeBytes, first.isCompressed};
}

ExtentGrains::Form ExtentGrains::readForm(DiskExtent const& extent) const {
    Form const firstForm = *m_forms.front();
    if (m_createsFilesOnDemand && !m_fileSystem->fileExists(extent.uri))
        return firstForm;
    yx::P<yx::IIOStream> const stream =
        openVMDKFileStream(m_fileSystem.get(), extent.uri, yx::IIOStream::ReadOnly);
    CVMDKSparseExtentHeader header;
    yx::CDataInStream in(stream.get());
    header.load(in);
    unsigned long long const sectors = header.getGrainSizeSectors();
    if (sectors < 1 || sectors > CVMDKDataPreparer::kMaxGrainSizeSectors)
        return firstForm;
    return {static_cast<__int64>(sectors) * kSectorSizeBytes, header.isCompressed()};
}

ExtentGrains::Form ExtentGrains::formOf(std::size_t extent) {
    assert(extent < m_forms.size());
    std::optional<Form>& form = m_forms[extent];
    if (!form)
        form = readForm(m_layout.getExtents()[extent]);
    assert(form->grainSizeBytes > 0);
    return *form;
}

FileGrain ExtentGrains::at(__int64 positionBytes) {
    if (positionBytes < 0 || positionBytes >= m_layout.getSizeBytes()) {
        throw yx::CIOError(
            yx::CIOError::BadPosition,
            "No grain of the disk holds the position: " + yx::toString(positionBytes),
            yx::CProps().add("diskSize", yx::toString(m_layout.getSizeBytes())), nullptr);
    }
    std::size_t const index = m_layout.findExtent(positionBytes);
    DiskExtent const& extent = m_layout.getExtents()[index];
    Form const form = formOf(index);
    __int64 const indexInExtent = (positionBytes - extent.startBytes) / form.grainSizeBytes;
    FileGrain grain;
    grain.startBytes = extent.startBytes + indexInExtent * form.grainSizeBytes;
    grain.endBytes =
        grain.startBytes + std::min(form.grainSizeBytes, extent.endBytes - grain.startBytes);
    grain.wholeSizeBytes = form.grainSizeBytes;
    grain.isCompressed = form.isCompressed;
    grain.parentStartBytes = grainPositionBytes(
        diskGrainIndexOf(extent.getStartGrainIndex(), indexInExtent), form.grainSizeBytes);
    grain.isGrainOfDisk = form == *m_forms.front() && grain.startBytes % form.grainSizeBytes == 0 &&
                          grain.endBytes - grain.startBytes == form.grainSizeBytes;
    assert(grain.startBytes <= positionBytes && positionBytes < grain.endBytes);
    assert(!grain.isGrainOfDisk || grain.parentStartBytes == grain.startBytes);
    return grain;
}

} // namespace kelm::host

#include "host/disk/safe_disk.h"

#include <algorithm>

#include "host/disk/disk_opening.h"
#include "kelm/format/constants.h"

namespace kelm::host {

namespace {

/// Room for a text descriptor to grow: an encoding line and longer content IDs.
constexpr __int64 kDescriptorRoomBytes = __int64{4} * kSectorSizeBytes;

} // namespace

SafeDisk::SafeDisk(yx::IFileSystem* fileSystem, yx::CURI const& uri, yx::IIOStream::Access access,
                   yx::String const& password, int compressionLevel, int readCacheLimit)
    : SafeDisk(fileSystem, openLockedDisk(fileSystem, uri, access, password, compressionLevel,
                                          readCacheLimit)) {
    if (access != yx::IIOStream::ReadWrite)
        return;
    verifyWholeGrainExtents();
    verifyExtentFilesExist();
    giveDescriptorRoom();
    recoverFromPowerCut();
}

SafeDisk::SafeDisk(yx::IFileSystem* fileSystem, yx::P<CVMDKDisk> const& disk)
    : m_fileSystem(fileSystem),
      m_disk(disk),
      m_hasParent(!disk->getParentDiskMainURI().isEmpty()),
      m_createsExtentFilesOnDemand(disk->getDescriptor()->getYxCreateExtentFilesOnDemand()),
      m_preparer(disk->createDataPreparer()) {
    m_worstCaseGrainBytes = calcWorstCaseGrainBytes(*m_preparer);
    collectExtents();
    // It is changed here, by `changeContentID`.
    m_disk->setContentIDUpdatesEnabled(false);
}

void SafeDisk::collectExtents() {
    yx::TArray<yx::P<CVMDKExtentInfo>> infos;
    m_disk->getDescriptor()->getExtentEntries(infos);
    yx::CURI const folder = m_disk->getMainFileURI().getParent();
    __int64 endBytes = 0;
    for (yx::P<CVMDKExtentInfo> const& info : infos) {
        if (endBytes % getGrainSizeBytes() != 0)
            m_extentsAreWholeGrains = false;
        endBytes += info->getSizeSectors() * kSectorSizeBytes;
        m_extents.push_back({endBytes, vmdkFileReferenceToURI(folder, info->getFilename()), -1,
                             !m_createsExtentFilesOnDemand || m_extents.empty()});
    }
}

void SafeDisk::verifyWholeGrainExtents() {
    // Here positions are cut into grains by the disk, there by each extent.
    if (!m_extentsAreWholeGrains) {
        throw yx::CIOError(yx::CIOError::NotSupported,
                           "The disk cannot be written to, since not all of its extents are whole "
                           "numbers of grains.",
                           yx::CProps().add("uri", m_disk->getMainFileURI().toString(true)),
                           nullptr);
    }
}

void SafeDisk::verifyExtentFilesExist() {
    if (m_createsExtentFilesOnDemand)
        return;
    for (Extent const& extent : m_extents) {
        if (!m_fileSystem->fileExists(extent.uri)) {
            throw yx::CIOError(yx::CIOError::NotFound, "An extent file of the disk is missing.",
                               yx::CProps().add("uri", extent.uri.toString(true)), nullptr);
        }
    }
}

void SafeDisk::giveDescriptorRoom() {
    yx::P<yx::IIOStream> const stream =
        openVMDKFileStream(m_fileSystem.get(), m_disk->getMainFileURI(), yx::IIOStream::ReadWrite);
    CVMDKDescriptorAccessor accessor(stream.get(), yx::IIOStream::ReadWrite);
    if (accessor.getEmbeddedInSparseExtentFile())
        return;
    CVMDKDescriptor asStored = *accessor.getDescriptor();
    asStored.setEncodingUTF8();
    asStored.setContentID(0xFFFFFFFF);
    auto const storedBytes = static_cast<__int64>(asStored.toString().toStdString().size());
    if (storedBytes < stream->getLength())
        return;
    stream->setLength(storedBytes + kDescriptorRoomBytes);
    stream->flush();
    stream->close();
}

std::vector<yx::CURI> SafeDisk::listFiles() {
    std::vector<yx::CURI> files{m_disk->getMainFileURI()};
    for (Extent const& extent : m_extents) {
        if (extent.uri != files.front())
            files.push_back(extent.uri);
    }
    return files;
}

std::vector<DiskExtent> SafeDisk::listExtents() const {
    std::vector<DiskExtent> extents;
    __int64 startBytes = 0;
    for (Extent const& extent : m_extents) {
        extents.push_back({extent.uri, startBytes, extent.endBytes});
        startBytes = extent.endBytes;
    }
    return extents;
}

__int64 SafeDisk::getGrainCount() const {
    return (getSizeBytes() + getGrainSizeBytes() - 1) / getGrainSizeBytes();
}

bool SafeDisk::isWholeGrain(__int64 grainIndex) const {
    return m_extentsAreWholeGrains && (grainIndex + 1) * getGrainSizeBytes() <= getSizeBytes();
}

int SafeDisk::grainBytesAt(__int64 grainStartBytes) const {
    return static_cast<int>(std::min(getGrainSizeBytes(), getSizeBytes() - grainStartBytes));
}

/// Before every operation that may bring further tables into memory.
void SafeDisk::dropTablesIfMany() {
    yx::P<CVMDKGrainTableCache> const tables = m_disk->getGrainTableCache();
    if (tables->getCachedTableCount() < kMaxTablesInMemory)
        return;
    // All extents but the current one were flushed when they were left, so after this no table is
    // changed.
    flush();
    tables->clear();
}

void SafeDisk::read(__int64 positionBytes, void* buffer, int bytes) {
    dropTablesIfMany();
    m_disk->seek(positionBytes);
    m_disk->read(buffer, bytes);
}

bool SafeDisk::isGrainWritten(__int64 grainIndex) {
    // Several grains of the file may lie under this one; only reading tells.
    if (!m_extentsAreWholeGrains)
        return true;
    dropTablesIfMany();
    m_disk->seek(grainIndex * getGrainSizeBytes());
    return m_disk->isGrainWritten();
}

bool SafeDisk::isGrainWrittenHere(__int64 grainIndex) {
    dropTablesIfMany();
    m_disk->seek(grainIndex * getGrainSizeBytes());
    return m_disk->isGrainWrittenAndIndependentOfParent();
}

} // namespace kelm::host

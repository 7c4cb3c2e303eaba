#include "kelm/disk/disk.h"

#include <cassert>
#include <typeinfo>
#include <utility>

#include "kelm/extent/internal/grain_position.h"
#include "kelm/extent/low_level_file_stream.h"
#include "kelm/extent/on_demand_extent_file.h"
#include "kelm/extent/parent_disk_data_provider.h"
#include "kelm/extent/sparse_extent_file.h"
#include "kelm/format/constants.h"
#include "kelm/format/file_reference.h"
#include "yx/error.h"
#include "yx/log.h"
#include "yx/native_file_system.h"
#include "yx/optimizing_io_stream.h"

namespace kelm {

namespace {

/// For an assertion: whether the extents follow each other from the disk's start to its end.
template <class Extents>
[[maybe_unused]] bool hasNoGaps(Extents const& extents, __int64 sizeSectors) {
    __int64 endSector = 0;
    for (auto const& [key, value] : extents) {
        if (key.m_startSector != endSector)
            return false;
        endSector += key.m_sizeSectors;
    }
    return endSector == sizeSectors;
}

/// As `openVMDKFileStream`, and of a file of the operating system the header and the descriptor are
/// read at once, where the descriptor has the usual place and size. Elsewhere a host may have them
/// in memory.
yx::P<yx::IIOStream> openDescriptorStream(yx::IFileSystem& fileSystem, yx::CURI const& uri,
                                          yx::IIOStream::Access access) {
    constexpr int kUsualDescriptorEndBytes = 36 * 1024;
    if (typeid(fileSystem) != typeid(yx::CNativeFileSystem))
        return openVMDKFileStream(&fileSystem, uri, access);
    unsigned int reserved = 0;
    return yx::makeObject<yx::COptimizingIOStream>(
        fileSystem.openFile(uri, access, &reserved).get(), kUsualDescriptorEndBytes);
}

} // namespace

CVMDKDisk::CVMDKDisk(yx::IFileSystem* fileSystem, yx::CURI const& uri, yx::IIOStream::Access access,
                     yx::String const& password, int compressionLevel,
                     CVMDKGrainTableCache* grainTableCache, CVMDKDisk* parentDisk)
    : CVMDKDisk(fileSystem, uri, access, password, compressionLevel, grainTableCache, parentDisk,
                nullptr) {}

CVMDKDisk::CVMDKDisk(yx::IFileSystem* fileSystem, yx::CURI const& uri, yx::IIOStream::Access access,
                     yx::String const& password, int compressionLevel,
                     CVMDKGrainTableCache* grainTableCache, CVMDKDisk* parentDisk,
                     yx::CLockFile* lockFile)
    : m_fileSystem(fileSystem),
      m_mainFileURI(uri.toNormalized()),
      m_access(access),
      m_compressionLevel(compressionLevel),
      m_lockFile(lockFile) {
    yx::CProps const uriProps = yx::CProps().add("uri", uri.toString(true));
    if (!m_lockFile)
        takeLock(uri);
    m_grainTableCache = grainTableCache ? yx::P<CVMDKGrainTableCache>(grainTableCache)
                                        : yx::makeObject<CVMDKGrainTableCache>();
    readDescriptor(uriProps);
    unwrapEncryptionKey(password, uriProps);
    m_createExtentFilesOnDemand = m_descriptor->getYxCreateExtentFilesOnDemand();
    readExtentLines(uriProps);
    learnGrainSize();
    makeParentDataProvider(password, parentDisk);
    m_contentIDUpdater =
        yx::makeObject<CVMDKContentIDUpdater>(fileSystem, m_mainFileURI, m_descriptor.get());
}

CVMDKDisk::~CVMDKDisk() {
    try {
        if (m_access != yx::IIOStream::ReadOnly && m_currentExtent)
            m_currentExtent->flushChanges();
    } catch (std::exception& error) {
        yx::onExceptionInDestructorIgnored("kelm::CVMDKDisk", error, true);
    }
}

yx::CURI CVMDKDisk::getLockFileURI(yx::CURI const& mainFileURI) {
    return mainFileURI.getParent() << (mainFileURI.getName() + kLockFileExtension);
}

void CVMDKDisk::takeLock(yx::CURI const& uri) {
    // Deliberate: named after the URI as given; all who share a disk agree on that name.
    yx::CURI const lockURI = getLockFileURI(uri);
    bool const exclusive = m_access == yx::IIOStream::ReadWrite;
    try {
        m_lockFile = yx::makeObject<yx::CLockFile>(
            m_fileSystem.get(), lockURI,
            exclusive ? yx::CLockFile::Exclusive : yx::CLockFile::Shared, false, true);
    } catch (yx::CError& error) {
        error.nop();
        // On read-only media nobody can change the disk. Deliberately for exactly read-only:
        // any other access shares the lock too, but has to have it.
        bool const mayGoWithoutLock =
            m_access == yx::IIOStream::ReadOnly && !m_fileSystem->fileExists(lockURI);
        if (!mayGoWithoutLock)
            throw;
    }
}

void CVMDKDisk::readDescriptor(yx::CProps const& uriProps) {
    m_descriptor = openDescriptorAccessor()->getDescriptor();
    if (!m_descriptor) {
        throw yx::CIOError(yx::CIOError::CorruptData, "No descriptor found in main VMDK file.",
                           uriProps, nullptr);
    }
    yx::String const createType = m_descriptor->getCreateType();
    if (createType != "twoGbMaxExtentSparse" && createType != "streamOptimized" &&
        createType != "monolithicSparse") {
        throw yx::CIOError(yx::CIOError::CorruptData,
                           "VMDK disk has an unsupported create type: '" + createType + "'.",
                           uriProps, nullptr);
    }
}

void CVMDKDisk::readExtentLines(yx::CProps const& uriProps) {
    m_descriptor->getExtentEntries(m_extentInfos);
    yx::CURI const folder = m_mainFileURI.getParent();
    __int64 sectors = 0;
    for (yx::P<CVMDKExtentInfo> const& info : m_extentInfos) {
        if (info->getType() != "SPARSE") {
            throw yx::CIOError(yx::CIOError::CorruptData,
                               "VMDK disk has an unsupported extent type: '" + info->getType() +
                                   "'.",
                               uriProps, nullptr);
        }
        __int64 const sizeSectors = info->getSizeSectors();
        if (sizeSectors < 0 || sizeSectors > kMaxPositionSectors - sectors) {
            throw yx::CIOError(yx::CIOError::CorruptData,
                               "Invalid extent size in VMDK descriptor: " +
                                   yx::toString(sizeSectors),
                               uriProps, nullptr);
        }
        // Deliberate: the access word and the offset of a line are not looked at.
        yx::CURI extentURI = vmdkFileReferenceToURI(folder, info->getFilename());
        if (m_firstExtentFileURI.isEmpty())
            m_firstExtentFileURI = extentURI;
        m_extentMap[CExtentKey{sectors, sizeSectors}].m_uri = std::move(extentURI);
        sectors += sizeSectors;
    }
    if (m_extentMap.isEmpty()) {
        throw yx::CIOError(yx::CIOError::CorruptData, "VMDK disk has no extents.", uriProps,
                           nullptr);
    }
    m_sizeSectors = sectors;
    m_sizeBytes = sectors * kSectorSizeBytes;
    assert(hasNoGaps(m_extentMap, m_sizeSectors));
}

void CVMDKDisk::learnGrainSize() {
    // Deliberately for reading only, whatever the disk's access: this is no more than a look.
    yx::P<yx::IIOStream> const stream =
        openVMDKFileStream(m_fileSystem.get(), m_firstExtentFileURI, yx::IIOStream::ReadOnly);
    CVMDKSparseExtentFile const extent(stream.get(), yx::IIOStream::ReadOnly, 0, m_compressionLevel,
                                       m_grainTableCache.get(), nullptr, nullptr, m_cipher.get(),
                                       m_encryptionKey, m_encryptionIV);
    m_grainSizeSectors = extent.getGrainSizeSectors();
    m_grainSizeBytes = m_grainSizeSectors * kSectorSizeBytes;
    m_compressed = extent.getCompressed();
    for (ExtentEntry& entry : m_extentMap) {
        entry.second.m_startGrainIndex =
            (entry.first.m_startSector + m_grainSizeSectors - 1) / m_grainSizeSectors;
    }
    assert(m_grainSizeSectors > 0);
}

void CVMDKDisk::makeParentDataProvider(yx::String const& password, CVMDKDisk* parentDisk) {
    unsigned int const parentContentID = m_descriptor->getParentContentID();
    if (parentContentID == kNoParentContentID)
        return;
    yx::P<CVMDKParentDiskDataProvider> const provider = yx::makeObject<CVMDKParentDiskDataProvider>(
        m_fileSystem.get(), m_mainFileURI, parentContentID, m_descriptor->getParentFileNameHint(),
        m_grainSizeSectors, password, m_compressionLevel, m_grainTableCache.get(), parentDisk);
    m_parentDiskMainURI = provider->getParentDiskMainFileURI();
    m_parentDataProvider = provider;
}

void CVMDKDisk::setChainDepth(int depth) {
    if (auto const provider = yx::cast<CVMDKParentDiskDataProvider>(m_parentDataProvider))
        provider->setChainDepth(depth);
}

yx::P<CVMDKDisk> CVMDKDisk::getParentDisk() {
    auto const provider = yx::cast<CVMDKParentDiskDataProvider>(m_parentDataProvider);
    return provider ? provider->getParentDisk() : yx::P<CVMDKDisk>();
}

yx::P<CVMDKDescriptorAccessor> CVMDKDisk::openDescriptorAccessor() {
    yx::P<yx::IIOStream> stream;
    if (m_currentExtent && m_currentExtent->getURI().toNormalized() == m_mainFileURI) {
        if (auto const extent = yx::cast<CVMDKSparseExtentFile>(m_currentExtent))
            stream = extent->getStream();
    }
    if (!stream)
        stream = openDescriptorStream(*m_fileSystem, m_mainFileURI, m_access);
    return yx::makeObject<CVMDKDescriptorAccessor>(stream.get(), m_access);
}

void CVMDKDisk::storeDescriptor() {
    verifyWriteAccess("storeDescriptor");
    assert(m_lockFile);
    yx::P<CVMDKDescriptorAccessor> const accessor = openDescriptorAccessor();
    *accessor->getDescriptor() = *m_descriptor;
    accessor->storeDescriptor(true);
}

void CVMDKDisk::changeParentRelPath(yx::String const& parentRelPath) {
    verifyWriteAccess("changeParentRelPath");
    m_descriptor->setParentFileNameHint(parentRelPath);
    storeDescriptor();
}

yx::P<CVMDKDataPreparer> CVMDKDisk::createDataPreparer() {
    return yx::makeObject<CVMDKDataPreparer>(m_grainSizeSectors, m_compressed, m_compressionLevel);
}

void CVMDKDisk::setContentIDUpdatesEnabled(bool enabled) {
    m_contentIDUpdater->setContentIDUpdatesEnabled(enabled);
}

void CVMDKDisk::setAutomaticGrainTableFlushingEnabled(bool enabled) {
    m_grainTableCache->setAutoEnforceLimit(enabled);
}

yx::P<IVMDKExtentFile> CVMDKDisk::makeExtentFile(ExtentEntry const& entry) {
    CExtentValue const& value = entry.second;
    if (m_createExtentFilesOnDemand && !m_fileSystem->fileExists(m_currentExtentURI)) {
        return yx::makeObject<CVMDKOnDemandExtentFile>(
            m_fileSystem.get(), m_currentExtentURI, m_access, value.m_startGrainIndex,
            m_grainSizeSectors, entry.first.m_sizeSectors, kSectorSizeBytes, m_compressed,
            m_compressionLevel, m_parentDataProvider.get(), m_grainTableCache.get(),
            m_contentIDUpdater.get(), m_cipher.get(), m_encryptionKey, m_encryptionIV,
            m_encryptionKeyHash);
    }
    yx::P<yx::IIOStream> const stream =
        openVMDKFileStream(m_fileSystem.get(), m_currentExtentURI, m_access);
    return yx::makeObject<CVMDKSparseExtentFile>(
        stream.get(), m_access, value.m_startGrainIndex, m_compressionLevel,
        m_grainTableCache.get(), m_parentDataProvider.get(), m_contentIDUpdater.get(),
        m_cipher.get(), m_encryptionKey, m_encryptionIV);
}

} // namespace kelm

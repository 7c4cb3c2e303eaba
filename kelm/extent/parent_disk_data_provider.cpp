#include "kelm/extent/parent_disk_data_provider.h"

#include <algorithm>
#include <cassert>

#include "kelm/disk/disk.h"
#include "kelm/extent/internal/grain_position.h"
#include "kelm/format/constants.h"
#include "kelm/format/file_reference.h"
#include "yx/error.h"
#include "yx/log.h"

namespace kelm {

CVMDKParentDiskDataProvider::CVMDKParentDiskDataProvider(
    yx::IFileSystem* fileSystem, yx::CURI const& childURI, unsigned int parentContentID,
    yx::String const& parentFileNameHint, __int64 grainSizeSectors, yx::String const& password,
    int compressionLevel, CVMDKGrainTableCache* grainTableCache, CVMDKDisk* parentDisk)
    : m_fileSystem(fileSystem),
      m_childURI(childURI.toNormalized()),
      m_parentContentID(parentContentID),
      m_parentFileNameHint(parentFileNameHint),
      m_grainSizeSectors(grainSizeSectors),
      m_compressionLevel(compressionLevel),
      m_grainTableCache(grainTableCache),
      m_grainSizeBytes(grainPositionBytes(grainSizeSectors, kSectorSizeBytes)),
      m_parentDiskMainURI(vmdkFileReferenceToURI(m_childURI.getParent(), parentFileNameHint)),
      m_parentDisk(parentDisk),
      m_password(password) {
    fetchParentDiskSize();
}

CVMDKParentDiskDataProvider::CVMDKParentDiskDataProvider(CVMDKParentDiskDataProvider const&) =
    default;
CVMDKParentDiskDataProvider& CVMDKParentDiskDataProvider::operator=(
    CVMDKParentDiskDataProvider const&) = default;

CVMDKParentDiskDataProvider::~CVMDKParentDiskDataProvider() {
    m_password.wipe();
}

void CVMDKParentDiskDataProvider::fetchParentDiskSize() {
    m_parentDiskSizeBytes = m_parentDisk ? m_parentDisk->getSizeBytes() : -1;
}

void CVMDKParentDiskDataProvider::openParentDisk() {
    if (m_chainDepth >= kMaxChainDepth) {
        throw yx::CIOError(yx::CIOError::CorruptData, "VMDK parent chain is too long.",
                           yx::CProps()
                               .add("parentURI", m_parentDiskMainURI.toString(true))
                               .add("childURI", m_childURI.toString(true)),
                           nullptr);
    }
    yx::P<CVMDKDisk> const disk =
        yx::makeObject<CVMDKDisk>(m_fileSystem.get(), m_parentDiskMainURI, yx::IIOStream::ReadOnly,
                                  m_password, m_compressionLevel, m_grainTableCache.get(), nullptr);
    unsigned int const actual = disk->getDescriptor()->getContentID();
    if (actual != m_parentContentID) {
        throw yx::CIOError(yx::CIOError::CorruptData,
                           "VMDK parent disk has changed, but a child disk depended on it.",
                           yx::CProps()
                               .add("parentURI", m_parentDiskMainURI.toString(true))
                               .add("childURI", m_childURI.toString(true))
                               .add("expectedContentID", yx::toHexString(m_parentContentID))
                               .add("actualContentID", yx::toHexString(actual)),
                           nullptr);
    }
    disk->setChainDepth(m_chainDepth + 1);
    m_parentDisk = disk;
}

void CVMDKParentDiskDataProvider::ensureParentDiskOpen() {
    // Deliberate: the content ID of a parent that was passed in is not checked.
    if (m_parentDisk)
        return;
    try {
        openParentDisk();
    } catch (yx::CError& error) {
        error.nop();
        yx::logError(error,
                     "Error while opening VMDK parent disk (parent URI: '" +
                         m_parentDiskMainURI.toString(true) + "', child URI: '" +
                         m_childURI.toString(true) + "')",
                     "");
        throw;
    }
    fetchParentDiskSize();
    assert(m_parentDiskSizeBytes >= 0);
}

yx::P<CVMDKDisk> CVMDKParentDiskDataProvider::getParentDisk() {
    ensureParentDiskOpen();
    return m_parentDisk;
}

void CVMDKParentDiskDataProvider::getData(__int64 position, void* buffer, int bytes) {
    assert(position >= 0 && bytes >= 0);
    ensureParentDiskOpen();
    auto* const target = static_cast<unsigned char*>(buffer);
    int count = 0;
    if (position < m_parentDiskSizeBytes) {
        m_parentDisk->seek(position);
        count = static_cast<int>(std::min<__int64>(m_parentDiskSizeBytes - position, bytes));
        m_parentDisk->read(target, count);
    }
    if (count < bytes)
        yx::initMemory(target + count, 0, static_cast<std::size_t>(bytes - count));
}

void CVMDKParentDiskDataProvider::verifyCompatible(int grainSizeBytes, bool compressed) {
    __int64 const actualGrainSize = m_parentDisk->getGrainSizeBytes();
    bool const actualCompressed = m_parentDisk->getCompressed();
    if (actualGrainSize == grainSizeBytes && actualCompressed == compressed)
        return;
    throw yx::CError(kParentIncompatibleMessage, "", -1,
                     yx::CProps()
                         .add("parentURI", m_parentDiskMainURI.toString(true))
                         .add("childURI", m_childURI.toString(true))
                         .add("expectedGrainSize", yx::toString(grainSizeBytes))
                         .add("expectedCompressed", yx::toString(compressed))
                         .add("actualGrainSize", yx::toString(actualGrainSize))
                         .add("actualCompressed", yx::toString(actualCompressed)),
                     nullptr);
}

void CVMDKParentDiskDataProvider::getPreparedGrainData(__int64 position,
                                                       yx::TBuffer<unsigned char>& data,
                                                       int grainSizeBytes, bool compressed) {
    ensureParentDiskOpen();
    // Checked only here: prepared data can be exchanged only by disks of the same form, but plain
    // data by any two disks.
    verifyCompatible(grainSizeBytes, compressed);
    if (position < m_parentDiskSizeBytes) {
        m_parentDisk->seek(position);
        m_parentDisk->readPreparedGrainData(data);
        return;
    }
    fillWithPreparedZeroGrain(position, data, grainSizeBytes);
}

void CVMDKParentDiskDataProvider::fillWithPreparedZeroGrain(__int64 position,
                                                            yx::TBuffer<unsigned char>& data,
                                                            int grainSizeBytes) {
    if (!m_dataPreparer)
        m_dataPreparer = m_parentDisk->createDataPreparer();
    data.assign(
        m_preparedZeroGrain.get(*m_dataPreparer, grainSizeBytes, position / grainSizeBytes));
}

bool CVMDKParentDiskDataProvider::isGrainWritten(__int64 position) {
    ensureParentDiskOpen();
    if (position >= m_parentDiskSizeBytes)
        return false;
    m_parentDisk->seek(position);
    return m_parentDisk->isGrainWritten();
}

} // namespace kelm

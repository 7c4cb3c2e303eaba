#include "kelm/extent/on_demand_extent_file.h"

#include <algorithm>
#include <cassert>

#include "kelm/extent/low_level_file_stream.h"
#include "kelm/extent/null_extent_file.h"
#include "kelm/extent/sparse_extent_file.h"
#include "kelm/format/empty_sparse_extent_file.h"
#include "yx/error.h"

namespace kelm {

namespace {

constexpr int kZeroBufferSizeBytes = 2048;

} // namespace

CVMDKOnDemandExtentFile::CVMDKOnDemandExtentFile(
    yx::IFileSystem* fileSystem, yx::CURI const& uri, yx::IIOStream::Access access,
    __int64 startGrainIndex, __int64 grainSizeSectors, __int64 extentSizeSectors,
    __int64 sectorSizeBytes, bool compressed, int compressionLevel,
    IVMDKDataProvider* fallbackDataProvider, CVMDKGrainTableCache* grainTableCache,
    CVMDKContentIDUpdater* contentIDUpdater, krym::ICipher* cipher,
    yx::TCryptBuffer<unsigned char> const& encryptionKey,
    yx::TBuffer<unsigned char> const& encryptionIV,
    yx::TBuffer<unsigned char> const& encryptionKeyHash)
    : m_fileSystem(fileSystem),
      m_uri(uri),
      m_access(access),
      m_startGrainIndex(startGrainIndex),
      m_grainSizeSectors(grainSizeSectors),
      m_extentSizeSectors(extentSizeSectors),
      m_sectorSizeBytes(sectorSizeBytes),
      m_compressed(compressed),
      m_compressionLevel(compressionLevel),
      m_fallbackDataProvider(fallbackDataProvider),
      m_grainTableCache(grainTableCache),
      m_contentIDUpdater(contentIDUpdater),
      m_cipher(cipher),
      m_encryptionKey(encryptionKey),
      m_encryptionIV(encryptionIV),
      m_encryptionKeyHash(encryptionKeyHash) {
    updateInnerFileObject(!fileSystem->fileExists(uri));
    assert(m_innerFile);
}

CVMDKOnDemandExtentFile::CVMDKOnDemandExtentFile(CVMDKOnDemandExtentFile const&) = default;
CVMDKOnDemandExtentFile& CVMDKOnDemandExtentFile::operator=(CVMDKOnDemandExtentFile const&) =
    default;
CVMDKOnDemandExtentFile::~CVMDKOnDemandExtentFile() = default;

void CVMDKOnDemandExtentFile::updateInnerFileObject(bool nullExtent) {
    constexpr __int64 kNoPosition = -1;
    __int64 const savedPosition = m_innerFile ? m_innerFile->getPosition() : kNoPosition;
    if (nullExtent) {
        m_innerFile = yx::makeObject<CVMDKNullExtentFile>(
            m_uri, m_startGrainIndex, m_grainSizeSectors, m_extentSizeSectors, m_sectorSizeBytes,
            m_compressed, m_compressionLevel, m_fallbackDataProvider.get());
    } else {
        yx::P<yx::IIOStream> const stream = openVMDKFileStream(m_fileSystem.get(), m_uri, m_access);
        m_innerFile = yx::makeObject<CVMDKSparseExtentFile>(
            stream.get(), m_access, m_startGrainIndex, m_compressionLevel, m_grainTableCache.get(),
            m_fallbackDataProvider.get(), m_contentIDUpdater.get(), m_cipher.get(), m_encryptionKey,
            m_encryptionIV);
    }
    m_innerIsNull = nullExtent;
    assert(m_innerFile->getPosition() == 0);
    if (savedPosition != kNoPosition)
        m_innerFile->seek(savedPosition);
}

void CVMDKOnDemandExtentFile::prepareWrite() {
    if (m_access != yx::IIOStream::ReadWrite) {
        throw yx::CError("Internal error: VMDK extent file is about to be changed, but it was not "
                         "opened for writing.",
                         "", -1, yx::CProps().add("uri", m_uri.toString(true)), nullptr);
    }
    if (!m_innerIsNull)
        return;
    if (!m_fileSystem->fileExists(m_uri)) {
        yx::TBuffer<unsigned char> zeroBuffer(kZeroBufferSizeBytes, -1);
        yx::initMemory(zeroBuffer.getData(), 0, kZeroBufferSizeBytes);
        // Deliberately rounded down: an extent is assumed to be a whole number of grains. A grain
        // size below 1 is refused by the creation itself.
        __int64 const grainCount =
            m_grainSizeSectors < 1 ? 0 : m_extentSizeSectors / m_grainSizeSectors;
        createEmptyVMDKSparseExtentFile(m_fileSystem.get(), m_uri, m_compressed, grainCount,
                                        m_grainSizeSectors, zeroBuffer, nullptr, 0,
                                        m_encryptionKeyHash);
    }
    updateInnerFileObject(false);
    assert(!m_innerIsNull);
}

void CVMDKOnDemandExtentFile::setFallbackDataProvider(IVMDKDataProvider* provider) {
    m_fallbackDataProvider = provider;
    m_innerFile->setFallbackDataProvider(provider);
}

void CVMDKOnDemandExtentFile::seek(__int64 position) {
    m_innerFile->seek(position);
}

__int64 CVMDKOnDemandExtentFile::getPosition() const {
    return m_innerFile->getPosition();
}

void CVMDKOnDemandExtentFile::read(void* buffer, int bytes) {
    m_innerFile->read(buffer, bytes);
}

void CVMDKOnDemandExtentFile::flushChanges() {
    m_innerFile->flushChanges();
}

yx::P<CVMDKDataPreparer> CVMDKOnDemandExtentFile::createDataPreparer() {
    return m_innerFile->createDataPreparer();
}

void CVMDKOnDemandExtentFile::readPreparedGrainData(yx::TBuffer<unsigned char>& data) {
    m_innerFile->readPreparedGrainData(data);
}

bool CVMDKOnDemandExtentFile::isGrainWritten() {
    return m_innerFile->isGrainWritten();
}

bool CVMDKOnDemandExtentFile::isGrainWrittenAndIndependentOfParent() {
    return m_innerFile->isGrainWrittenAndIndependentOfParent();
}

yx::P<CVMDKSpaceInfo> CVMDKOnDemandExtentFile::gatherSpaceInfo() {
    return m_innerFile->gatherSpaceInfo();
}

void CVMDKOnDemandExtentFile::write(void const* buffer, int bytes) {
    prepareWrite();
    m_innerFile->write(buffer, bytes);
}

void CVMDKOnDemandExtentFile::writePreparedGrainData(yx::TBuffer<unsigned char> const& data) {
    prepareWrite();
    m_innerFile->writePreparedGrainData(data);
}

/// The inner extent, while it has a file.
CVMDKSparseExtentFile& CVMDKOnDemandExtentFile::getSparseFile() {
    assert(!m_innerIsNull);
    return *yx::cast<CVMDKSparseExtentFile>(m_innerFile);
}

void CVMDKOnDemandExtentFile::writeEncipheredGrainData(yx::TBuffer<unsigned char> const& data) {
    prepareWrite();
    getSparseFile().writeEncipheredGrainData(data);
}

bool CVMDKOnDemandExtentFile::tryReadEncipheredGrainData(yx::TBuffer<unsigned char>& data) {
    return !m_innerIsNull && getSparseFile().tryReadEncipheredGrainData(data);
}

__int64 CVMDKOnDemandExtentFile::countBytesWithoutData(__int64 maxBytes) {
    if (!m_innerIsNull)
        return getSparseFile().countBytesWithoutData(maxBytes);
    return std::min(maxBytes, m_extentSizeSectors * m_sectorSizeBytes - getPosition());
}

__int64 CVMDKOnDemandExtentFile::makeGrainIndependentOfParent(__int64 grainIndex) {
    prepareWrite();
    return m_innerFile->makeGrainIndependentOfParent(grainIndex);
}

} // namespace kelm

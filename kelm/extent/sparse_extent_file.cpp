#include "kelm/extent/sparse_extent_file.h"

#include <cassert>
#include <limits>

#include "kelm/extent/internal/disk_key_hash.h"
#include "kelm/extent/internal/sequential_grain_reader.h"
#include "kelm/format/constants.h"
#include "kelm/format/internal/uri_props.h"
#include "kelm/format/marker.h"
#include "yx/buffer_stream.h"
#include "yx/data_in_stream.h"
#include "yx/data_out_stream.h"
#include "yx/error.h"
#include "yx/log.h"

namespace kelm {

namespace {

constexpr char kExtentConstructorName[] = "CVMDKSparseExtentFile constructor";

/// The directory offset of a file whose complete header is its footer.
constexpr unsigned long long kDirectoryInFooter = 0xFFFFFFFFFFFFFFFF;

constexpr int kTrailSizeBytes = kTrailSectors * kSectorSizeBytes;

} // namespace

CVMDKSparseExtentFile::CVMDKSparseExtentFile(yx::IIOStream* stream, yx::IIOStream::Access access,
                                             __int64 startGrainIndex, int compressionLevel,
                                             CVMDKGrainTableCache* grainTableCache,
                                             IVMDKDataProvider* fallbackDataProvider,
                                             CVMDKContentIDUpdater* contentIDUpdater,
                                             krym::ICipher* cipher,
                                             yx::TCryptBuffer<unsigned char> const& encryptionKey,
                                             yx::TBuffer<unsigned char> const& encryptionIV)
    : m_stream(stream),
      m_access(access),
      m_grainTableCache(grainTableCache),
      m_startGrainIndex(startGrainIndex),
      m_fallbackDataProvider(fallbackDataProvider),
      m_contentIDUpdater(contentIDUpdater),
      m_header(yx::makeObject<CVMDKSparseExtentHeader>()),
      m_compressionLevel(compressionLevel),
      m_cipher(cipher),
      m_encryptionKey(encryptionKey),
      m_encryptionIV(encryptionIV) {
    yx::CDataInStream in(stream);
    m_header->load(in);
    // Deliberately ignores the flag for an unclean shutdown: such a file opens like any other.
    verifyCipherAndKey();
    verifyVersion();
    readSizesAndFlags();
    verifySizes();
    m_grainDirectory =
        yx::makeObject<CVMDKGrainDirectory>(stream, access, *m_header, grainTableCache);
    __int64 const allocationUnitSectors = m_compressed ? 1 : m_grainSizeSectors;
    m_grainAllocator = yx::makeObject<CVMDKGrainAllocator>(
        stream, access, m_grainSizeSectors, allocationUnitSectors, m_grainDirectory.get(),
        makeTrailingImage());
    m_grain = yx::makeObject<CVMDKGrain>(stream, access, m_grainSizeSectors, m_grainAllocator.get(),
                                         m_compressed, compressionLevel, fallbackDataProvider,
                                         cipher, encryptionKey, encryptionIV);
    m_sequentialReader = yx::makeObject<SequentialGrainReader>(stream, m_grainDirectory.get(),
                                                               m_grain.get(), m_grainSizeSectors,
                                                               m_header->getGrainTableEntryCount());
    assert(m_capacityBytes >= 0 && m_grainSizeBytes > 0);
    assert(areCursorsSound());
}

CVMDKSparseExtentFile::CVMDKSparseExtentFile(CVMDKSparseExtentFile const&) = default;
CVMDKSparseExtentFile& CVMDKSparseExtentFile::operator=(CVMDKSparseExtentFile const&) = default;

CVMDKSparseExtentFile::~CVMDKSparseExtentFile() {
    try {
        CVMDKSparseExtentFile::flushChanges();
    } catch (std::exception& error) {
        yx::onExceptionInDestructorIgnored("kelm::CVMDKSparseExtentFile", error, true);
    }
}

yx::CProps CVMDKSparseExtentFile::uriProps() const {
    return uriPropsOf(*m_stream);
}

void CVMDKSparseExtentFile::verifyCipherAndKey() {
    if (!m_header->isEncrypted()) {
        if (m_cipher) {
            throw yx::CInvalidArgError(
                kExtentConstructorName,
                "VMDK extent file is NOT encrypted but a cipher object was specified.", uriProps());
        }
        return;
    }
    if (!m_cipher) {
        throw yx::CInvalidArgError(
            kExtentConstructorName,
            "VMDK extent file is encrypted but no cipher object was specified.", uriProps());
    }
    yx::String const cipherID = m_cipher->getID();
    if (cipherID != kCipherID) {
        throw yx::CInvalidArgError(kExtentConstructorName,
                                   "Cipher object has an unsupported ID: " + cipherID, uriProps());
    }
    if (m_encryptionKey.getUsed() != m_cipher->getKeySize()) {
        throw yx::CInvalidArgError(kExtentConstructorName,
                                   "Specified encryption key has an incorrect size for the cipher",
                                   uriProps()
                                       .add("expectedKeySize", yx::toString(m_cipher->getKeySize()))
                                       .add("keySize", yx::toString(m_encryptionKey.getUsed()))
                                       .add("cipherID", cipherID));
    }
    verifyKeyHash();
}

void CVMDKSparseExtentFile::verifyKeyHash() {
    unsigned int const algorithm = m_header->getEncryptionAlgorithm();
    if (algorithm != kEncryptionAlgorithmAES256CBC) {
        throw yx::CError("Unsupported encryption algorithm used by VMDK extent file: " +
                             yx::toString(algorithm),
                         "", -1, uriProps(), nullptr);
    }
    unsigned int const hashAlgorithm = m_header->getEncryptionKeyHashAlgorithm();
    if (hashAlgorithm != kKeyHashAlgorithmSHA256) {
        throw yx::CError("Unsupported key hash algorithm used in VMDK: " +
                             yx::toString(hashAlgorithm),
                         "", -1, uriProps(), nullptr);
    }
    if (!isHashOfKey(m_header->getEncryptionKeyHash(), m_encryptionKey)) {
        throw yx::CError("Specified VMDK extent file encryption key is not correct.", "", -1,
                         uriProps(), nullptr);
    }
}

void CVMDKSparseExtentFile::verifyVersion() {
    unsigned int const version = m_header->getVersion();
    if (version < kOldestVersion || version > kNewestVersion) {
        throw yx::CIOError(yx::CIOError::UnsupportedVersion,
                           "VMDK file has an unsupported version: " + yx::toString(version),
                           uriProps(), nullptr);
    }
}

void CVMDKSparseExtentFile::readSizesAndFlags() {
    m_capacitySectors = static_cast<__int64>(m_header->getCapacitySectors());
    m_grainSizeSectors = static_cast<__int64>(m_header->getGrainSizeSectors());
    m_compressed = m_header->isCompressed();
    bool const metaMarkers = (m_header->getFlags() & kFlagMetaMarkers) != 0;
    if (m_compressed != metaMarkers) {
        throw yx::CIOError(yx::CIOError::CorruptData,
                           "VMDK flags 'compressed' and 'metaMarkers' are different (compressed: " +
                               yx::toString(m_compressed) +
                               ", metaMarkers: " + yx::toString(metaMarkers) + ")",
                           uriProps(), nullptr);
    }
    if (m_header->getGrainDirectoryOffsetSectors() == kDirectoryInFooter) {
        throw yx::CIOError(
            yx::CIOError::CorruptData,
            "VMDK file uses an unsupported variant of the 'stream optimized' format.", uriProps(),
            nullptr);
    }
}

void CVMDKSparseExtentFile::verifySizes() {
    // All other code computes byte counts in 64 bits and table sizes in 32.
    constexpr unsigned int kMaxEntries = std::numeric_limits<int>::max();

    auto const refuse = [this](char const* field, yx::String const& value) {
        throw yx::CIOError(yx::CIOError::CorruptData,
                           "Invalid " + yx::String(field) + " in VMDK sparse header: " + value,
                           uriProps(), nullptr);
    };
    if (m_capacitySectors < 0 || m_capacitySectors > kMaxPositionSectors)
        refuse("capacity", yx::toString(m_header->getCapacitySectors()));
    if (m_grainSizeSectors < 1 || m_grainSizeSectors > CVMDKDataPreparer::kMaxGrainSizeSectors)
        refuse("grain size", yx::toString(m_header->getGrainSizeSectors()));
    unsigned int const entries = m_header->getGrainTableEntryCount();
    if (entries < 1 || entries > kMaxEntries)
        refuse("grain table entry count", yx::toString(entries));
    m_capacityBytes = m_capacitySectors * kSectorSizeBytes;
    m_grainSizeBytes = m_grainSizeSectors * kSectorSizeBytes;
}

/// The bytes that a compressed file must end with: footer marker, copy of the header, end marker.
yx::TBuffer<unsigned char> CVMDKSparseExtentFile::makeTrailingImage() {
    yx::TBuffer<unsigned char> image;
    if (!m_compressed)
        return image;
    yx::TBuffer<unsigned char> padding(kTrailSizeBytes, -1);
    yx::initMemory(padding.getData(), 0, kTrailSizeBytes);
    yx::CBufferStream stream(&image, 2.0);
    yx::CDataOutStream out(&stream);
    writeVMDKMarker(out, VMDKMarkerFooter, 1, padding);
    m_header->store(out);
    writeVMDKMarker(out, VMDKMarkerEndOfStream, 0, padding);
    return image;
}

} // namespace kelm

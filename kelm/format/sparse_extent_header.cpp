#include "kelm/format/sparse_extent_header.h"

#include <cassert>
#include <cstring>

#include "kelm/format/constants.h"
#include "yx/error.h"

namespace kelm {

// The record, 512 bytes, little-endian:
//
//   offset  size
//        0     4  magic: 4B 44 4D 56 ("KDMV"), or 45 4B 64 05 with the encryption extension
//        4     4  version
//        8     4  flags
//       12     8  capacity in sectors
//       20     8  grain size in sectors
//       28     8  descriptor offset in sectors, 0 for none
//       36     8  descriptor size in sectors, 0 for none
//       44     4  grain table entry count
//       48     8  redundant grain directory offset in sectors
//       56     8  grain directory offset in sectors
//       64     8  overhead in sectors
//       72     1  unclean shutdown, 0 or 1
//       73     4  new-line detection: 0A 20 0D 0A
//       77     2  compress algorithm
//
//   plain:                                 with the encryption extension:
//       79   433  padding                       79     2  encryption algorithm
//                                               81     2  encryption key hash algorithm
//                                               83     2  key hash size N
//                                               85     N  key hash
//                                             85+N 427-N  padding

namespace {

constexpr char kNewLineDetection[] = {'\n', ' ', '\r', '\n'};
constexpr int kPlainPaddingSizeBytes = 433;
static_assert(79 + kPlainPaddingSizeBytes == kSectorSizeBytes);
static_assert(85 + kMaxEncryptionKeyHashSizeBytes == kSectorSizeBytes);

} // namespace

CVMDKSparseExtentHeader::CVMDKSparseExtentHeader() {
    resizePadding();
}

void CVMDKSparseExtentHeader::load(yx::CDataInStream& stream) {
    unsigned int const magic = stream.readUInt32();
    if (magic != kHeaderMagic && magic != kEncryptionExtensionHeaderMagic) {
        throw yx::CIOError(yx::CIOError::CorruptData, "Invalid magic number in VMDK sparse header",
                           yx::CProps().add("num", yx::toString(magic)), nullptr);
    }
    m_encryptionExtensionEnabled = magic == kEncryptionExtensionHeaderMagic;
    m_version = stream.readUInt32();
    m_flags = stream.readUInt32();
    m_capacitySectors = stream.readUInt64();
    m_grainSizeSectors = stream.readUInt64();
    m_descriptorOffsetSectors = stream.readUInt64();
    m_descriptorSizeSectors = stream.readUInt64();
    m_grainTableEntryCount = stream.readUInt32();
    m_redundantGrainDirectoryOffsetSectors = stream.readUInt64();
    if (!(m_flags & kFlagRedundantGrainDirectory))
        m_redundantGrainDirectoryOffsetSectors = 0;
    m_grainDirectoryOffsetSectors = stream.readUInt64();
    m_overheadSectors = stream.readUInt64();
    m_uncleanShutdown = stream.readUInt8() != 0;

    char newLineDetection[sizeof(kNewLineDetection)];
    stream.read(newLineDetection, sizeof(newLineDetection));
    bool const intact =
        std::memcmp(newLineDetection, kNewLineDetection, sizeof(kNewLineDetection)) == 0;
    if ((m_flags & kFlagNewLineDetectionValid) && !intact) {
        throw yx::CIOError(yx::CIOError::CorruptData,
                           "VMDK image is corrupted (probably by having been transferred in FTP "
                           "ASCII mode).",
                           yx::CProps(), nullptr);
    }
    m_compressAlgorithm = stream.readUInt16();
    if (m_encryptionExtensionEnabled)
        loadEncryptionExtension(stream);
    m_padding.setUsed(getPaddingSizeBytes());
    stream.read(m_padding.getData(), m_padding.getUsed());
}

void CVMDKSparseExtentHeader::loadEncryptionExtension(yx::CDataInStream& stream) {
    m_encryptionAlgorithm = stream.readUInt16();
    m_encryptionKeyHashAlgorithm = stream.readUInt16();
    int const hashSizeBytes = stream.readUInt16();
    if (hashSizeBytes > kMaxEncryptionKeyHashSizeBytes) {
        throw yx::CIOError(yx::CIOError::CorruptData,
                           "Invalid encryption key hash size in VMDK sparse header: " +
                               yx::toString(hashSizeBytes),
                           yx::CProps().add("uri", stream.getURI().toString(true)), nullptr);
    }
    m_encryptionKeyHash.setUsed(hashSizeBytes);
    stream.read(m_encryptionKeyHash.getData(), hashSizeBytes);
}

void CVMDKSparseExtentHeader::store(yx::CDataOutStream& stream) {
    if (m_encryptionExtensionEnabled &&
        m_encryptionKeyHash.getUsed() > kMaxEncryptionKeyHashSizeBytes) {
        throw yx::CError(
            "Internal error: encryption key hash is too long for VMDK sparse header: " +
                yx::toString(m_encryptionKeyHash.getUsed()),
            "", -1, yx::CProps(), nullptr);
    }
    // Before anything is written: it may need memory.
    resizePadding();
    stream.writeUInt32(m_encryptionExtensionEnabled ? kEncryptionExtensionHeaderMagic
                                                    : kHeaderMagic);
    stream.writeUInt32(m_version);
    stream.writeUInt32(m_flags);
    stream.writeUInt64(m_capacitySectors);
    stream.writeUInt64(m_grainSizeSectors);
    stream.writeUInt64(m_descriptorOffsetSectors);
    stream.writeUInt64(m_descriptorSizeSectors);
    stream.writeUInt32(m_grainTableEntryCount);
    stream.writeUInt64(m_redundantGrainDirectoryOffsetSectors);
    stream.writeUInt64(m_grainDirectoryOffsetSectors);
    stream.writeUInt64(m_overheadSectors);
    stream.writeUInt8(m_uncleanShutdown ? 1 : 0);
    stream.write(kNewLineDetection, sizeof(kNewLineDetection), nullptr);
    stream.writeUInt16(m_compressAlgorithm);
    if (m_encryptionExtensionEnabled)
        storeEncryptionExtension(stream);
    assert(m_padding.getUsed() == getPaddingSizeBytes());
    stream.write(m_padding.getData(), m_padding.getUsed(), nullptr);
}

void CVMDKSparseExtentHeader::storeEncryptionExtension(yx::CDataOutStream& stream) {
    int const hashSizeBytes = m_encryptionKeyHash.getUsed();
    stream.writeUInt16(m_encryptionAlgorithm);
    stream.writeUInt16(m_encryptionKeyHashAlgorithm);
    stream.writeUInt16(static_cast<unsigned short>(hashSizeBytes));
    stream.write(m_encryptionKeyHash.getData(), hashSizeBytes, nullptr);
}

int CVMDKSparseExtentHeader::getPaddingSizeBytes() const {
    return m_encryptionExtensionEnabled
               ? kMaxEncryptionKeyHashSizeBytes - m_encryptionKeyHash.getUsed()
               : kPlainPaddingSizeBytes;
}

/// Fits the padding to the variant. It grows here if the header changed its variant since it was
/// loaded or stored, and uninitialised memory must not reach the file.
void CVMDKSparseExtentHeader::resizePadding() {
    int const oldSizeBytes = m_padding.getUsed();
    int const newSizeBytes = getPaddingSizeBytes();
    m_padding.setUsed(newSizeBytes);
    if (newSizeBytes > oldSizeBytes) {
        yx::initMemory(m_padding.getData() + oldSizeBytes, 0,
                       static_cast<size_t>(newSizeBytes - oldSizeBytes));
    }
}

} // namespace kelm

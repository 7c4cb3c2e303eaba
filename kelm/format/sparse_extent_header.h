#pragma once

#include "kelm/export.h"
#include "kelm/format/constants.h"
#include "yx/data_in_stream.h"
#include "yx/data_out_stream.h"

namespace kelm {

/// The 512-byte binary record at the start of a sparse extent file, and in a stream-optimized one
/// near its end too. Sizes and offsets count sectors of 512 bytes.
///
/// The record's layout is drawn in the source file. The magic number and the new-line detection
/// bytes have no field here: the former follows from `getEncryptionExtensionEnabled`, the latter
/// are constant. A new header holds zeros, no encryption extension and an empty key hash. The
/// setters check nothing.
class KELM_API CVMDKSparseExtentHeader : public yx::CBase {
public:
    CVMDKSparseExtentHeader();

    /// Copies take all fields, the buffers by content.
    CVMDKSparseExtentHeader(CVMDKSparseExtentHeader const&) = default;
    CVMDKSparseExtentHeader& operator=(CVMDKSparseExtentHeader const&) = default;
    ~CVMDKSparseExtentHeader() override = default;

    /// Reads a record at the stream's position, which moves on by 512 bytes. Checks the magic
    /// number, the new-line detection bytes (if their flag is set) and the length of the key hash,
    /// and no other field. The redundant directory's offset loads as 0 unless its flag is set.
    ///
    /// Throws `yx::CIOError` `CorruptData`: "Invalid magic number in VMDK sparse header" with "num"
    /// (the magic in decimal); "VMDK image is corrupted (probably by having been transferred in FTP
    /// ASCII mode)."; "Invalid encryption key hash size in VMDK sparse header: " and the size,
    /// which is above 427, with "uri". Errors of the stream pass through. After a failure the
    /// fields read so far are set and the header is not to be used.
    void load(yx::CDataInStream& stream);

    /// Writes the record, 512 bytes, at the stream's position. What `load` found behind the fields
    /// is written back as far as it fits; the rest is zero. A key hash above 427 bytes is
    /// `yx::CError`, and nothing is written then.
    void store(yx::CDataOutStream& stream);

    /// The format version, `kOldestVersion` to `kNewestVersion` in a file that can be opened.
    unsigned int getVersion() const { return m_version; }
    void setVersion(unsigned int version) { m_version = version; }

    /// Bits: `kFlagNewLineDetectionValid` and its neighbours.
    unsigned int getFlags() const { return m_flags; }
    void setFlags(unsigned int flags) { m_flags = flags; }

    /// Whether the grains in the file are compressed, by the flag for it.
    bool isCompressed() const { return (m_flags & kFlagCompressed) != 0; }

    /// The extent's share of the disk; a whole number of grains.
    unsigned long long getCapacitySectors() const { return m_capacitySectors; }
    void setCapacitySectors(unsigned long long sectors) { m_capacitySectors = sectors; }

    /// The size of a grain.
    unsigned long long getGrainSizeSectors() const { return m_grainSizeSectors; }
    void setGrainSizeSectors(unsigned long long sectors) { m_grainSizeSectors = sectors; }

    /// Sector of the embedded descriptor, and the sectors reserved for it; 0 if there is none.
    unsigned long long getDescriptorOffsetSectors() const { return m_descriptorOffsetSectors; }
    void setDescriptorOffsetSectors(unsigned long long sectors) {
        m_descriptorOffsetSectors = sectors;
    }
    unsigned long long getDescriptorSizeSectors() const { return m_descriptorSizeSectors; }
    void setDescriptorSizeSectors(unsigned long long sectors) { m_descriptorSizeSectors = sectors; }

    /// Entries of one grain table, 512 in every file made here.
    unsigned int getGrainTableEntryCount() const { return m_grainTableEntryCount; }
    void setGrainTableEntryCount(unsigned int count) { m_grainTableEntryCount = count; }

    /// Sector of the redundant grain directory; 0 if there is none.
    unsigned long long getRedundantGrainDirectoryOffsetSectors() const {
        return m_redundantGrainDirectoryOffsetSectors;
    }
    void setRedundantGrainDirectoryOffsetSectors(unsigned long long sectors) {
        m_redundantGrainDirectoryOffsetSectors = sectors;
    }

    /// Sector of the grain directory.
    unsigned long long getGrainDirectoryOffsetSectors() const {
        return m_grainDirectoryOffsetSectors;
    }
    void setGrainDirectoryOffsetSectors(unsigned long long sectors) {
        m_grainDirectoryOffsetSectors = sectors;
    }

    /// Sectors before the first data grain.
    unsigned long long getOverheadSectors() const { return m_overheadSectors; }
    void setOverheadSectors(unsigned long long sectors) { m_overheadSectors = sectors; }

    /// Kept as found; nothing here sets it.
    bool getUncleanShutdown() const { return m_uncleanShutdown; }
    void setUncleanShutdown(bool unclean) { m_uncleanShutdown = unclean; }

    /// `kCompressAlgorithmNone` or `kCompressAlgorithmDeflate`.
    unsigned short getCompressAlgorithm() const { return m_compressAlgorithm; }
    void setCompressAlgorithm(unsigned short algorithm) { m_compressAlgorithm = algorithm; }

    /// Whether the record has the encryption fields; its magic number says so.
    bool getEncryptionExtensionEnabled() const { return m_encryptionExtensionEnabled; }
    void setEncryptionExtensionEnabled(bool enabled) { m_encryptionExtensionEnabled = enabled; }

    /// Whether the grains in the file are enciphered.
    bool isEncrypted() const {
        return m_encryptionExtensionEnabled && m_encryptionAlgorithm != kEncryptionAlgorithmNone;
    }

    /// `kEncryptionAlgorithmNone` or `kEncryptionAlgorithmAES256CBC`. The setter's name is
    /// deliberate: hosts link against it.
    unsigned short getEncryptionAlgorithm() const { return m_encryptionAlgorithm; }
    void setEncryptionAlgorthm(unsigned short algorithm) { m_encryptionAlgorithm = algorithm; }

    /// `kKeyHashAlgorithmSHA256`. The setter's name is deliberate here too.
    unsigned short getEncryptionKeyHashAlgorithm() const { return m_encryptionKeyHashAlgorithm; }
    void setEncryptionKeyHashAlgorthm(unsigned short algorithm) {
        m_encryptionKeyHashAlgorithm = algorithm;
    }

    /// The hash of the disk's key; at most 427 bytes can be stored.
    yx::TBuffer<unsigned char> const& getEncryptionKeyHash() const { return m_encryptionKeyHash; }
    void setEncryptionKeyHash(yx::TBuffer<unsigned char> const& hash) {
        m_encryptionKeyHash = hash;
    }

private:
    void loadEncryptionExtension(yx::CDataInStream& stream);
    void storeEncryptionExtension(yx::CDataOutStream& stream);
    int getPaddingSizeBytes() const;
    void resizePadding();

    unsigned int m_version = 0;
    unsigned int m_flags = 0;
    unsigned long long m_capacitySectors = 0;
    unsigned long long m_grainSizeSectors = 0;
    unsigned long long m_descriptorOffsetSectors = 0;
    unsigned long long m_descriptorSizeSectors = 0;
    unsigned int m_grainTableEntryCount = 0;
    unsigned long long m_redundantGrainDirectoryOffsetSectors = 0;
    unsigned long long m_grainDirectoryOffsetSectors = 0;
    unsigned long long m_overheadSectors = 0;
    bool m_uncleanShutdown = false;
    unsigned short m_compressAlgorithm = 0;
    yx::TBuffer<unsigned char> m_padding;
    bool m_encryptionExtensionEnabled = false;
    unsigned short m_encryptionAlgorithm = 0;
    unsigned short m_encryptionKeyHashAlgorithm = 0;
    yx::TBuffer<unsigned char> m_encryptionKeyHash;
};

} // namespace kelm

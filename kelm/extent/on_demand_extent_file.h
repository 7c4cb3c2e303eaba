#pragma once

#include "kelm/extent/extent_file.h"
#include "kelm/format/content_id_updater.h"
#include "kelm/metadata/grain_table_cache.h"
#include "krym/krym.h"
#include "yx/file_system.h"

namespace kelm {

class CVMDKSparseExtentFile;

/// An extent of a split disk whose file is made by the first write. If the file is known to exist,
/// use `CVMDKSparseExtentFile` directly.
///
/// Everything is forwarded to an inner extent: a `CVMDKNullExtentFile` while there is no file, and
/// a `CVMDKSparseExtentFile` from then on. The cursor stays the same when the inner extent changes.
class KELM_API CVMDKOnDemandExtentFile : public yx::CBase, public virtual IVMDKExtentFile {
public:
    /// `uri` is where the file is or will be. `extentSizeSectors` is a whole number of grains;
    /// `sectorSizeBytes` is 512. `encryptionKeyHash` is stored in the header of a new file, and is
    /// empty for an extent that is not enciphered. If the file exists, it is opened at once, and
    /// errors of the opening pass through.
    CVMDKOnDemandExtentFile(yx::IFileSystem* fileSystem, yx::CURI const& uri,
                            yx::IIOStream::Access access, __int64 startGrainIndex,
                            __int64 grainSizeSectors, __int64 extentSizeSectors,
                            __int64 sectorSizeBytes, bool compressed, int compressionLevel,
                            IVMDKDataProvider* fallbackDataProvider,
                            CVMDKGrainTableCache* grainTableCache,
                            CVMDKContentIDUpdater* contentIDUpdater, krym::ICipher* cipher,
                            yx::TCryptBuffer<unsigned char> const& encryptionKey,
                            yx::TBuffer<unsigned char> const& encryptionIV,
                            yx::TBuffer<unsigned char> const& encryptionKeyHash);

    /// A copy shares the inner extent until one of the two replaces its own.
    CVMDKOnDemandExtentFile(CVMDKOnDemandExtentFile const&);
    CVMDKOnDemandExtentFile& operator=(CVMDKOnDemandExtentFile const&);

    /// Flushes nothing itself; the inner extent flushes when its last reference is released.
    ~CVMDKOnDemandExtentFile() override;

    void setFallbackDataProvider(IVMDKDataProvider* provider) override;
    __int64 getStartGrainIndex() const override { return m_startGrainIndex; }
    __int64 getGrainSizeSectors() const override { return m_grainSizeSectors; }
    bool getCompressed() const override { return m_compressed; }
    yx::CURI getURI() const override { return m_uri; }

    void seek(__int64 position) override;
    __int64 getPosition() const override;
    void read(void* buffer, int bytes) override;
    void flushChanges() override;
    yx::P<CVMDKDataPreparer> createDataPreparer() override;
    void readPreparedGrainData(yx::TBuffer<unsigned char>& data) override;
    bool isGrainWritten() override;
    bool isGrainWrittenAndIndependentOfParent() override;
    yx::P<CVMDKSpaceInfo> gatherSpaceInfo() override;

    /// As the extent does that has the file; false while there is none.
    bool tryReadEncipheredGrainData(yx::TBuffer<unsigned char>& data);

    /// As the extent does that has the file; up to the end of the extent while there is none.
    __int64 countBytesWithoutData(__int64 maxBytes);

    /// These four operations write, and make the file first if there is none. Without write access
    /// they throw `yx::CError` "Internal error: VMDK extent file is about to be changed, but it was
    /// not opened for writing." with "uri".
    void write(void const* buffer, int bytes) override;
    void writePreparedGrainData(yx::TBuffer<unsigned char> const& data) override;
    void writeEncipheredGrainData(yx::TBuffer<unsigned char> const& data);
    __int64 makeGrainIndependentOfParent(__int64 grainIndex) override;

protected:
    /// Replaces the inner extent: by a null extent if `nullExtent`, otherwise by one that opens the
    /// file. Its cursor is set to that of the old one. If making the new one fails, the old one
    /// stays; if setting the cursor fails, the new one stays, with its cursor at 0.
    void updateInnerFileObject(bool nullExtent);

    /// Makes the file if there is none, and makes the inner extent open it. A file that another
    /// process has made in the meantime is opened as it is. Throws `yx::CError` without write
    /// access, as the writing operations do. If making the file fails, the null extent stays, and
    /// the next call tries again.
    void prepareWrite();

private:
    CVMDKSparseExtentFile& getSparseFile();

    yx::P<yx::IFileSystem> m_fileSystem;
    yx::CURI m_uri;
    yx::IIOStream::Access m_access;
    __int64 m_startGrainIndex;
    __int64 m_grainSizeSectors;
    __int64 m_extentSizeSectors;
    __int64 m_sectorSizeBytes;
    bool m_compressed;
    int m_compressionLevel;
    yx::P<IVMDKDataProvider> m_fallbackDataProvider;
    yx::P<CVMDKGrainTableCache> m_grainTableCache;
    yx::P<CVMDKContentIDUpdater> m_contentIDUpdater;
    bool m_innerIsNull = false;
    yx::P<IVMDKExtentFile> m_innerFile;
    yx::P<krym::ICipher> m_cipher;
    yx::TCryptBuffer<unsigned char> m_encryptionKey;
    yx::TBuffer<unsigned char> m_encryptionIV;
    yx::TBuffer<unsigned char> m_encryptionKeyHash;
};

} // namespace kelm

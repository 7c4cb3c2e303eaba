#pragma once

#include "kelm/extent/extent_file.h"
#include "kelm/format/content_id_updater.h"
#include "kelm/metadata/grain_table_cache.h"
#include "krym/krym.h"
#include "yx/file_system.h"

namespace kelm {

/// An extent of a split disk whose file need not exist yet: it comes into being at the first write.
///
/// Everything is forwarded to an inner extent, a `CVMDKNullExtentFile` while there is no file and a
/// `CVMDKSparseExtentFile` from then on. The cursor survives the change.
class KELM_API CVMDKOnDemandExtentFile : public yx::CBase, public virtual IVMDKExtentFile {
public:
    /// `uri` is where the file is or would be. `extentSizeSectors` is a whole number of grains;
    /// `sectorSizeBytes` is 512. `encryptionKeyHash` goes into a new file's header and is empty for
    /// an extent that is not enciphered. If the file exists, it is opened at once, and what its
    /// opening refuses passes through.
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

    /// The three writing operations make the file first if there is none. Without write access they
    /// throw `yx::CError` "Internal error: VMDK extent file is about to be changed, but it was not
    /// opened for writing." with "uri".
    void write(void const* buffer, int bytes) override;
    void writePreparedGrainData(yx::TBuffer<unsigned char> const& data) override;
    __int64 makeGrainIndependentOfParent(__int64 grainIndex) override;

protected:
    /// Replaces the inner object and takes its cursor over. If making the new one fails, the old
    /// one stays.
    void updateInnerFileObject(bool nullExtent);

    /// Makes sure that the file exists and is the inner object. A file that somebody else has made
    /// meanwhile is opened as it stands.
    void prepareWrite();

private:
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

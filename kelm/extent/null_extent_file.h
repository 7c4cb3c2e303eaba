#pragma once

#include "kelm/extent/extent_file.h"
#include "kelm/graindata/prepared_zero_grain.h"

namespace kelm {

/// Stands in for an extent whose file does not exist: it reads the provider's data, or zeros
/// without a provider. Refuses every write; `CVMDKOnDemandExtentFile` makes the file instead.
class KELM_API CVMDKNullExtentFile : public yx::CBase, public virtual IVMDKExtentFile {
public:
    /// `uri` is where the extent's file would be, for error messages. `startGrainIndex` is the disk
    /// grain index of the first grain; `sectorSizeBytes` is 512. `compressed` and
    /// `compressionLevel` determine the form of prepared grains. `provider` may be null. Accesses
    /// no file and cannot fail.
    CVMDKNullExtentFile(yx::CURI const& uri, __int64 startGrainIndex, __int64 grainSizeSectors,
                        __int64 extentSizeSectors, __int64 sectorSizeBytes, bool compressed,
                        int compressionLevel, IVMDKDataProvider* provider);

    /// A copy shares the provider and starts at the same cursor.
    CVMDKNullExtentFile(CVMDKNullExtentFile const&);
    CVMDKNullExtentFile& operator=(CVMDKNullExtentFile const&);

    ~CVMDKNullExtentFile() override;

    void setFallbackDataProvider(IVMDKDataProvider* provider) override;
    __int64 getStartGrainIndex() const override { return m_startGrainIndex; }
    __int64 getGrainSizeSectors() const override { return m_grainSizeSectors; }
    bool getCompressed() const override { return m_compressed; }
    yx::CURI getURI() const override { return m_uri; }

    /// Throws `yx::CInvalidArgError` "Invalid position: <n>" with "uri" for a position outside 0 to
    /// the extent's size.
    void seek(__int64 position) override;

    __int64 getPosition() const override { return m_position; }

    /// Throws, without reading anything, `yx::CIOError` `UnexpectedEnd` with "uri", "position" and
    /// "bytesToRead" for a range past the extent's end, and `yx::CInvalidArgError` with "uri" for a
    /// negative size.
    void read(void* buffer, int bytes) override;

    /// Always throws `yx::CError` "Internal error: write method called on VMDK null extent file."
    /// with "uri".
    void write(void const* buffer, int bytes) override;

    /// Does nothing.
    void flushChanges() override;

    yx::P<CVMDKDataPreparer> createDataPreparer() override;

    /// Always throws, as `write` does, with its own name in the message.
    void writePreparedGrainData(yx::TBuffer<unsigned char> const& data) override;

    /// Throws, in this order, `yx::CIOError` `NotAllowed` with "uri", "position", "grainSize" and
    /// "extentSize" for a grain that exceeds the extent, and `NotAligned` with "uri", "position"
    /// and "grainSize" for a cursor off a grain boundary. Without a provider, a zero grain is
    /// prepared once and copied by each call.
    void readPreparedGrainData(yx::TBuffer<unsigned char>& data) override;

    /// Always throws, as `write` does, with its own name in the message.
    __int64 makeGrainIndependentOfParent(__int64 grainIndex) override;

    /// Whether the provider has data for the grain at the cursor; at the extent's end, for the
    /// first grain after the extent.
    bool isGrainWritten() override;

    /// Always false: a null extent has no data of its own.
    bool isGrainWrittenAndIndependentOfParent() override;

    /// A record of zeros.
    yx::P<CVMDKSpaceInfo> gatherSpaceInfo() override;

private:
    bool isCursorInside() const;
    yx::CProps uriProps() const;
    void verifyGrainSize() const;
    void verifyPreparedGrainRange() const;
    __int64 calcCurrentDiskGrainIndex() const;
    __int64 calcDiskPosition(__int64 diskGrainIndex, __int64 offsetBytes) const;
    void fillWithPreparedZeroGrain(yx::TBuffer<unsigned char>& data, __int64 diskGrainIndex);
    [[noreturn]] void refuse(char const* operation) const;

    yx::CURI m_uri;
    __int64 m_startGrainIndex;
    __int64 m_grainSizeSectors;
    __int64 m_extentSizeSectors;
    __int64 m_sectorSizeBytes;
    bool m_compressed;
    int m_compressionLevel;
    __int64 m_grainSizeBytes;
    __int64 m_extentSizeBytes;
    yx::P<IVMDKDataProvider> m_fallbackDataProvider;
    __int64 m_position = 0;
    yx::P<CVMDKDataPreparer> m_dataPreparer;
    CVMDKPreparedZeroGrain m_preparedZeroGrain;
};

} // namespace kelm

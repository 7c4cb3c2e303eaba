#pragma once

#include "kelm/extent/extent_file.h"

namespace kelm {

/// An extent without a file: it reads what its provider has, else zeros, and refuses every write.
class KELM_API CVMDKNullExtentFile : public yx::CBase, public virtual IVMDKExtentFile {
public:
    /// `uri` is where the extent's file would be, for error messages. `startGrainIndex` is the disk
    /// grain index of the first grain; `sectorSizeBytes` is 512. `compressed` and
    /// `compressionLevel` tell the form of prepared grains. `provider` may be null. Touches no file
    /// and cannot fail.
    CVMDKNullExtentFile(yx::CURI const& uri, __int64 startGrainIndex, __int64 grainSizeSectors,
                        __int64 extentSizeSectors, __int64 sectorSizeBytes, bool compressed,
                        int compressionLevel, IVMDKDataProvider* provider);

    void setFallbackDataProvider(IVMDKDataProvider* provider) override;
    __int64 getStartGrainIndex() const override { return m_startGrainIndex; }
    __int64 getGrainSizeSectors() const override { return m_grainSizeSectors; }
    bool getCompressed() const override { return m_compressed; }
    yx::CURI getURI() const override { return m_uri; }

    /// A position outside 0 to the extent's size is `yx::CInvalidArgError` "Invalid position: <n>"
    /// with "uri".
    void seek(__int64 position) override;

    __int64 getPosition() const override { return m_position; }

    /// Past the extent's end: `yx::CIOError` `UnexpectedEnd` with "uri", "position" and
    /// "bytesToRead", nothing read. A negative size is `yx::CInvalidArgError` with "uri".
    void read(void* buffer, int bytes) override;

    /// Always refuses: `yx::CError` "Internal error: write method called on VMDK null extent file."
    /// with "uri".
    void write(void const* buffer, int bytes) override;

    /// Does nothing.
    void flushChanges() override;

    yx::P<CVMDKDataPreparer> createDataPreparer() override;

    /// Always refuses, like `write`.
    void writePreparedGrainData(yx::TBuffer<unsigned char> const& data) override;

    /// A grain that exceeds the extent is `yx::CIOError` `NotAllowed` with "uri", "position",
    /// "grainSize" and "extentSize"; then, a cursor off a grain boundary is `NotAligned` with
    /// "uri", "position" and "grainSize". Without a provider one zero grain is prepared, once, and
    /// each call costs a copy of it.
    void readPreparedGrainData(yx::TBuffer<unsigned char>& data) override;

    /// Always refuses, like `write`.
    __int64 makeGrainIndependentOfParent(__int64 grainIndex) override;

    /// Whether the provider has the grain under the cursor; at the very end, the grain just behind
    /// the extent.
    bool isGrainWritten() override;

    /// Always false: a null extent has no data of its own.
    bool isGrainWrittenAndIndependentOfParent() override;

    /// A record of zeros.
    yx::P<CVMDKSpaceInfo> gatherSpaceInfo() override;

private:
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
    yx::P<yx::TBuffer<unsigned char>> m_preparedZeroGrain;
};

} // namespace kelm

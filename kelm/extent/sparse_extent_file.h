#pragma once

#include "kelm/extent/extent_file.h"
#include "kelm/format/content_id_updater.h"
#include "kelm/format/sparse_extent_header.h"
#include "kelm/graindata/grain.h"
#include "kelm/metadata/grain_allocator.h"
#include "kelm/metadata/grain_directory.h"
#include "kelm/metadata/grain_table_cache.h"
#include "krym/krym.h"
#include "yx/path_impl.h"
#include "yx/stream.h"

namespace kelm {

/// The extent that works on a real sparse extent file, plain or stream-optimized, enciphered or
/// not.
///
/// It moves no data itself: it keeps a byte cursor over the extent and one `CVMDKGrain`, which
/// holds the grain under the cursor in memory and writes it back when it is left or flushed. Every
/// operation is cut at grain boundaries.
class KELM_API CVMDKSparseExtentFile : public yx::CBase, public virtual IVMDKExtentFile {
public:
    /// Opens the extent on `stream`, which stands on the extent's header.
    ///
    /// `startGrainIndex` is the disk grain index of the first grain; `compressionLevel` is for
    /// grains still to be written; `fallbackDataProvider`, `contentIDUpdater` (a write then fails)
    /// and `cipher` (for an extent that is not enciphered) may be null.
    ///
    /// Refusals, in this order, each with "uri": a bad header; for an enciphered extent no cipher,
    /// a cipher other than "aes256cbc", a key of the wrong size, an unknown algorithm, an unknown
    /// key hash algorithm, a key that does not match the header's hash; for a plain extent a
    /// cipher; a version other than 1 to 3 (`UnsupportedVersion`); flags that disagree, a directory
    /// that is said to be in the footer, sizes that cannot be (`CorruptData`); what the directory,
    /// allocator and grain refuse.
    CVMDKSparseExtentFile(yx::IIOStream* stream, yx::IIOStream::Access access,
                          __int64 startGrainIndex, int compressionLevel,
                          CVMDKGrainTableCache* grainTableCache,
                          IVMDKDataProvider* fallbackDataProvider,
                          CVMDKContentIDUpdater* contentIDUpdater, krym::ICipher* cipher,
                          yx::TCryptBuffer<unsigned char> const& encryptionKey,
                          yx::TBuffer<unsigned char> const& encryptionIV);

    /// Flushes. A failure is reported to `yx::onExceptionInDestructorIgnored`; who must know calls
    /// `flushChanges` first.
    ~CVMDKSparseExtentFile() override;

    /// The open file, for reaching the descriptor without opening it twice.
    yx::P<yx::IIOStream> getStream() { return m_stream; }

    void setFallbackDataProvider(IVMDKDataProvider* provider) override;
    __int64 getStartGrainIndex() const override { return m_startGrainIndex; }
    __int64 getGrainSizeSectors() const override { return m_grainSizeSectors; }
    bool getCompressed() const override { return m_compressed; }

    /// The URI of the stream.
    yx::CURI getURI() const override;

    /// A position outside 0 to the capacity is `yx::CInvalidArgError` "Invalid position: <n>".
    void seek(__int64 position) override;

    __int64 getPosition() const override { return m_position; }

    /// Past the capacity: `yx::CIOError` `UnexpectedEnd`, nothing read. A count below 1 reads
    /// nothing.
    void read(void* buffer, int bytes) override;

    /// Past the capacity: `yx::CIOError` `NotAllowed`, nothing written. Without updater or write
    /// access: `yx::CError`. A count below 1 writes nothing, but changes the content ID.
    void write(void const* buffer, int bytes) override;

    /// Writes, in this order: the grain, the trail of a compressed extent, (stream flush), the
    /// changed grain tables, (stream flush). Data is thus on the device before a table points to
    /// it. What fails stays changed, and the next call tries again.
    void flushChanges() override;

    yx::P<CVMDKDataPreparer> createDataPreparer() override;
    void writePreparedGrainData(yx::TBuffer<unsigned char> const& data) override;
    void readPreparedGrainData(yx::TBuffer<unsigned char>& data) override;
    __int64 makeGrainIndependentOfParent(__int64 grainIndex) override;
    bool isGrainWritten() override;
    bool isGrainWrittenAndIndependentOfParent() override;
    yx::P<CVMDKSpaceInfo> gatherSpaceInfo() override;

protected:
    /// Makes sure that the grain stands under the cursor, and returns how many bytes from there, at
    /// most `maxBytes`, may be handled in one step.
    __int64 beginIOOp(__int64 maxBytes);
    int readGrainsAndLeave(void* target, __int64 limit);
    int countAdjacentGrains(__int64 limit);

    /// Called before every change of the contents: changes the disk's content ID if that is due.
    void onAboutToChange();

    /// Throws `yx::CError` unless the extent was opened for reading and writing.
    void verifyHaveWriteAccess();

private:
    void verifyCipherAndKey();
    void verifyKeyHash();
    void verifyVersion();
    void readSizesAndFlags();
    void verifySizes();
    yx::TBuffer<unsigned char> makeTrailingImage();
    void verifyPreparedGrainRange(char const* operation) const;
    void beginPreparedGrainOp(char const* function);
    yx::CProps uriProps() const;

    yx::P<yx::IIOStream> m_stream;
    yx::IIOStream::Access m_access;
    // Deliberately here though nothing sets or reads it: it is part of the object's shape.
    yx::TPathImpl<yx::CWindowsPathTraits> m_path;
    yx::P<CVMDKGrainTableCache> m_grainTableCache;
    __int64 m_startGrainIndex;
    yx::P<IVMDKDataProvider> m_fallbackDataProvider;
    yx::P<CVMDKContentIDUpdater> m_contentIDUpdater;
    yx::P<CVMDKSparseExtentHeader> m_header;
    __int64 m_capacitySectors = 0;
    __int64 m_capacityBytes = 0;
    __int64 m_grainSizeSectors = 0;
    __int64 m_grainSizeBytes = 0;
    bool m_compressed = false;
    int m_compressionLevel;
    yx::P<CVMDKGrainDirectory> m_grainDirectory;
    yx::P<CVMDKGrainAllocator> m_grainAllocator;
    yx::P<CVMDKGrain> m_grain;
    __int64 m_currentGrainIndex = -1;
    __int64 m_position = 0;
    yx::P<krym::ICipher> m_cipher;
    yx::TCryptBuffer<unsigned char> m_encryptionKey;
    yx::TBuffer<unsigned char> m_encryptionIV;
    /// Where a request to read ended that took in the whole of its last grain; -1 after any other.
    __int64 m_wholeGrainsReadEnd = -1;
};

} // namespace kelm

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

class SequentialGrainReader;

/// Reads and writes a sparse extent file, plain or stream-optimized, enciphered or not. Where the
/// file may not exist yet, `CVMDKOnDemandExtentFile` is the class to use.
///
/// It divides every operation at grain boundaries and leaves the transfer of data to one
/// `CVMDKGrain`, which keeps the grain at the cursor in memory and stores it when another grain is
/// opened or the extent is flushed.
class KELM_API CVMDKSparseExtentFile : public yx::CBase, public virtual IVMDKExtentFile {
public:
    /// Opens the extent on `stream`, whose position is that of the extent's header.
    ///
    /// `startGrainIndex` is the disk grain index of the first grain; `compressionLevel` is used for
    /// grains that are written. `fallbackDataProvider` may be null, and so may `contentIDUpdater`,
    /// without which writes fail, and `cipher` for an extent that is not enciphered.
    ///
    /// Refuses, in this order and each with "uri": a bad header; for an enciphered extent no
    /// cipher, a cipher other than "aes256cbc", a key of the wrong size, an unknown algorithm, an
    /// unknown key hash algorithm, a key that does not match the header's hash; for an extent that
    /// is not enciphered a cipher; a version other than 1 to 3 (`UnsupportedVersion`); flags that
    /// contradict each other, a grain directory whose position is only in the footer, impossible
    /// sizes (`CorruptData`); and what the directory, the allocator and the grain refuse.
    CVMDKSparseExtentFile(yx::IIOStream* stream, yx::IIOStream::Access access,
                          __int64 startGrainIndex, int compressionLevel,
                          CVMDKGrainTableCache* grainTableCache,
                          IVMDKDataProvider* fallbackDataProvider,
                          CVMDKContentIDUpdater* contentIDUpdater, krym::ICipher* cipher,
                          yx::TCryptBuffer<unsigned char> const& encryptionKey,
                          yx::TBuffer<unsigned char> const& encryptionIV);

    /// A copy shares the stream and all parts of the extent, the open grain included, and starts at
    /// the same cursor. Only one of the two may be used from then on.
    CVMDKSparseExtentFile(CVMDKSparseExtentFile const&);
    CVMDKSparseExtentFile& operator=(CVMDKSparseExtentFile const&);

    /// Flushes. A failure is only reported to `yx::onExceptionInDestructorIgnored`; to get the
    /// error, call `flushChanges` first.
    ~CVMDKSparseExtentFile() override;

    /// The open file, through which the descriptor can be accessed without opening it again.
    yx::P<yx::IIOStream> getStream() { return m_stream; }

    void setFallbackDataProvider(IVMDKDataProvider* provider) override;
    __int64 getStartGrainIndex() const override { return m_startGrainIndex; }
    __int64 getGrainSizeSectors() const override { return m_grainSizeSectors; }
    bool getCompressed() const override { return m_compressed; }

    /// The URI of the stream.
    yx::CURI getURI() const override;

    /// Throws `yx::CInvalidArgError` "Invalid position: <n>" with "uri" for a position outside 0 to
    /// the capacity.
    void seek(__int64 position) override;

    __int64 getPosition() const override { return m_position; }

    /// Throws `yx::CIOError` `UnexpectedEnd` with "uri", "position" and "bytesToRead" for a range
    /// past the capacity, without reading anything. A count below 1 reads nothing. If looking up or
    /// reading a grain fails, the grains before it have been read, and the cursor is at the failed
    /// one. A read of several grains at once that fails although each of them can be read alone
    /// leaves the cursor at the first of them.
    void read(void* buffer, int bytes) override;

    /// Throws `yx::CIOError` `NotAllowed` with "uri", "position" and "bytesToWrite" for a range
    /// past the capacity, without writing anything, and `yx::CError` without an updater or write
    /// access. A count below 1 writes nothing, but changes the content ID.
    void write(void const* buffer, int bytes) override;

    /// Writes the grain and the trail of a compressed extent, flushes the stream, writes the
    /// changed grain tables, and flushes the stream again. So data are on the device before a table
    /// points to them. What could not be written stays changed, and the next call tries again. Does
    /// nothing on an extent that was opened read-only.
    void flushChanges() override;

    yx::P<CVMDKDataPreparer> createDataPreparer() override;
    void writePreparedGrainData(yx::TBuffer<unsigned char> const& data) override;
    void readPreparedGrainData(yx::TBuffer<unsigned char>& data) override;
    __int64 makeGrainIndependentOfParent(__int64 grainIndex) override;
    bool isGrainWritten() override;
    bool isGrainWrittenAndIndependentOfParent() override;
    yx::P<CVMDKSpaceInfo> gatherSpaceInfo() override;

    /// Stores one whole grain that a `CVMDKGrainCipher` has enciphered, as `writePreparedGrainData`
    /// stores a prepared one; see `CVMDKGrain::writeEncipheredGrainData`.
    void writeEncipheredGrainData(yx::TBuffer<unsigned char> const& data);

    /// Fills `data` with the grain at the cursor as the file holds it, moves the cursor to the next
    /// grain and returns true; or returns false and leaves the cursor where this extent has no data
    /// of the grain. Refuses as `readPreparedGrainData` does; see
    /// `CVMDKGrain::tryReadEncipheredGrainData`.
    bool tryReadEncipheredGrainData(yx::TBuffer<unsigned char>& data);

    /// How many of the bytes from the cursor on, at most `maxBytes`, come before the first grain
    /// that this extent has data of; 0 if the grain at the cursor is one. As many calls of
    /// `isGrainWrittenAndIndependentOfParent` would tell, but from the tables, without opening each
    /// grain. The cursor does not move. Throws what these calls would throw, for any of the grains.
    __int64 countBytesWithoutData(__int64 maxBytes);

protected:
    /// Opens the grain at the cursor, unless the open one has bytes left. Returns how many bytes,
    /// at most `maxBytes`, the next step can process without leaving the grain. Throws what looking
    /// up or opening the grain throws, and `yx::CError` if there are no bytes left even then; the
    /// cursor does not move.
    __int64 beginIOOp(__int64 maxBytes);

    /// Called before every change of the contents: lets the updater change the disk's content ID,
    /// which it does once for each opening. Throws `yx::CError` with "uri" without an updater, and
    /// what `verifyHaveWriteAccess` and the updater throw. A failure of the write that follows does
    /// not change the content ID back.
    void onAboutToChange();

    /// Throws `yx::CError` "Internal error: VMDK sparse extent file is about to be changed, but it
    /// was not opened for writing." with "uri" unless the extent was opened for reading and
    /// writing.
    void verifyHaveWriteAccess();

private:
    bool areCursorsSound() const;
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
    // Deliberately kept, although it is never used: it is part of the object's layout.
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
    yx::P<SequentialGrainReader> m_sequentialReader;
};

} // namespace kelm

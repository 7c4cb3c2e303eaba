#pragma once

#include "kelm/export.h"
#include "kelm/extent/data_provider.h"
#include "kelm/graindata/data_preparer.h"
#include "kelm/metadata/igrain_allocator.h"
#include "krym/krym.h"
#include "yx/stream.h"

namespace kelm {

/// A sparse extent's view of one grain at a time: opened on a grain, it holds that grain's plain
/// bytes in memory, so that many small reads and writes touch the file once.
///
/// The bytes come from the extent file if the grain has a position there, else from the fallback
/// data provider (the parent disk), else they are zeros. `write` changes memory only; the file
/// changes in `flushChangesToStream`, which `open`, `close`, `readPreparedGrainData` and the
/// destructor call. What is stored is compressed, then enciphered; `CVMDKDataPreparer` has the
/// layout.
///
/// Where a grain is stored:
///
///     extent        position  new data                       place
///     uncompressed  no        any                            new slot of one grain
///     uncompressed  yes       any                            the old place
///     compressed    no        takes n sectors                new slot of n sectors
///     compressed    yes       fits the slot                  the old place, slot unchanged
///     compressed    yes       does not fit                   new slot for the worst case; the old
///                                                            one is abandoned
///
/// So a first write packs tight, and a grain that has outgrown its slot once never moves again.
///
/// Errors of the stream, the allocator, the provider, the cipher and the decoder pass through. It
/// shares the stream's position with tables and allocator, and seeks before each use. Once the
/// buffers have grown, reading and writing allocate nothing. Not thread-safe.
class KELM_API CVMDKGrain : public yx::CBase, public virtual yx::IBase {
public:
    /// Closed at first. `provider`, `cipher` and, for reading only, `allocator` may be null. With a
    /// cipher, `encryptionIV` must have at least one cipher block, or enciphering and deciphering
    /// are refused by `yx::CInvalidArgError`.
    ///
    /// A grain size below 1 or above `CVMDKDataPreparer::kMaxGrainSizeSectors` is `yx::CIOError`
    /// `CorruptData` with "uri"; a cipher block size below 1 or above a sector is
    /// `yx::CInvalidArgError` with "uri".
    CVMDKGrain(yx::IIOStream* stream, yx::IIOStream::Access access, __int64 grainSizeSectors,
               IVMDKGrainAllocator* allocator, bool compressed, int compressionLevel,
               IVMDKDataProvider* fallbackDataProvider, krym::ICipher* cipher,
               yx::TCryptBuffer<unsigned char> const& encryptionKey,
               yx::TBuffer<unsigned char> const& encryptionIV);

    /// A copy takes the unflushed changes along.
    CVMDKGrain(CVMDKGrain const&) = default;
    CVMDKGrain& operator=(CVMDKGrain const&) = default;

    /// Closes. A failure of the flush is reported to `yx::onExceptionInDestructorIgnored`, and the
    /// changes are lost.
    ~CVMDKGrain() override;

    /// Flushes and stands on another grain, at its first byte, without reading it.
    ///
    /// `extentGrainIndex` counts within the extent and serves the allocator; `diskGrainIndex`
    /// counts over the whole disk and serves everything else. `posSectors` below 1 means that the
    /// grain has no data in this extent, and `slotSizeSectors` is then ignored.
    ///
    /// A flush that fails leaves the grain as it was. A slot below 1 sector in a compressed extent,
    /// one below the grain size in an uncompressed one, and a position or disk grain index whose
    /// byte position no number can hold, are `yx::CInvalidArgError` at "CVMDKGrain::open" and leave
    /// it closed.
    void open(__int64 extentGrainIndex, __int64 diskGrainIndex, __int64 posSectors,
              __int64 slotSizeSectors);

    /// Flushes and leaves the grain. If the flush fails, the grain stays open, changes and all.
    void close();

    /// Whether it stands on a grain.
    bool isOpen() const;

    /// Sets the position in the grain, in bytes. Outside 0 to the grain size, which is excluded, it
    /// is `yx::CInvalidArgError` with "uri", "position" and "grainSize".
    void seek(__int64 position);

    /// The byte position in the grain; after the last byte it is the grain size. 0 when closed.
    __int64 getPosition() const;

    /// The bytes from the position to the grain's end; 0 when closed.
    int getBytesLeft();

    /// Reads exactly `size` bytes and moves on. A negative size is `yx::CInvalidArgError` with
    /// "uri", one past the grain's end `yx::CIOError` `UnexpectedEnd` with "uri", "position" and
    /// "bytesToRead".
    ///
    /// A grain without a position is not fetched: the bytes asked for come straight from the
    /// provider. A whole compressed grain is decoded straight into `target`, and its record stays
    /// in memory for what comes next. A load that fails leaves nothing loaded, and `target`
    /// undefined.
    void read(void* target, int size);

    /// Reads the whole grain, whose first byte the position is at, for a caller that goes on to
    /// another grain then: like `read`, but where the file holds the grain as it is, the bytes go
    /// straight to `target` and do not stay in memory.
    void readAndLeave(void* target);

    /// The same for `grainCount` grains that lie one behind the other in the file from this one on;
    /// this one must be in the file alone. Returns how many were read: fewer, but at least one, if
    /// the file ends or fails among them.
    int readAdjacentAndLeave(void* target, int grainCount);

    /// Whether the file holds the grain as it is, and memory nothing of it.
    bool isInFileAlone() const;

    /// Fills `target` with the whole grain in prepared form, deciphered, after flushing, and moves
    /// to the grain's end. A position other than 0 is `yx::CIOError` `NotAllowed` with "uri",
    /// "posInGrain", "diskGrainIndex" and "extentGrainIndex". After a failure `target` is
    /// undefined.
    void readPreparedGrainData(yx::TBuffer<unsigned char>& target);

    /// Whether the grain holds data here, unflushed changes included, or in the provider.
    bool isGrainWritten();

    /// Whether the grain holds data here, unflushed changes included.
    bool isGrainWrittenAndIndependentOfParent();

    /// The grain's first sector; 0 without data in this extent, -1 when closed.
    __int64 getGrainStartPositionSectors() const { return m_grainPosSectors; }

    /// Replaces the source of grains without data here; null for zeros.
    void setFallbackDataProvider(IVMDKDataProvider* provider);

    /// A new preparer of this extent's settings.
    yx::P<CVMDKDataPreparer> createDataPreparer();

    /// Writes exactly `size` bytes into memory and moves on. The checks, in this order: a negative
    /// size is `yx::CInvalidArgError` with "uri"; one past the grain's end `yx::CIOError`
    /// `NotAllowed` with "uri"; a grain not opened for reading and writing `yx::CError`. A part of
    /// a grain first loads the rest; if that fails, nothing is changed.
    void write(void const* source, int size);

    /// Stores the grain if it has changes. A grain that is all zero and has no position is not
    /// stored, and its changes are over. After a failure the changes are still there, and the next
    /// call tries again.
    void flushChangesToStream();

    /// Stores a whole grain given in prepared form, always, and moves to the grain's end. Changes
    /// in memory are dropped.
    ///
    /// The checks, in this order: a grain not opened for reading and writing is `yx::CError`; a
    /// position other than 0 and data of no bytes are `yx::CIOError` `NotAllowed` with "uri",
    /// "posInGrain", "diskGrainIndex", "extentGrainIndex" and "preparedDataSize". Data that do not
    /// fit the grain's place, or are too short to be enciphered, are refused before anything is
    /// written.
    ///
    /// When a compressed grain outgrows its slot and no new one can be had, its position is 0 from
    /// then on, but it reads as before, since the old slot still holds the old data.
    void writePreparedGrainData(yx::TBuffer<unsigned char> const& data);

    /// The same for bytes that the caller leaves unchanged, so that the stream can pass them on
    /// without a copy.
    void writePreparedGrainDataKeepBuffer(yx::TConstBufferSlice<unsigned char> const& data);

    /// Stores what the provider has for this grain, so that the grain no longer needs it, moves to
    /// the grain's end, and returns the bytes stored. A grain with a position is only passed over:
    /// the result is the grain size in bytes. Without a provider it does nothing and returns 0.
    ///
    /// A position other than 0 is `yx::CIOError` `NotAllowed` with "uri", "posInGrain",
    /// "diskGrainIndex" and "extentGrainIndex"; then, a grain not opened for reading and writing is
    /// `yx::CError`.
    __int64 makeIndependentOfParent();

    /// Sets `iv` to `baseIV` with the 64-bit grain index, its lowest byte first, laid over it by
    /// exclusive-or again and again. So equal grains at different places of a disk are enciphered
    /// differently.
    static void makeGrainEncryptIV(yx::TBuffer<unsigned char>& iv,
                                   yx::TBuffer<unsigned char> const& baseIV, __int64 grainIndex);

protected:
    /// Loads the plain grain into memory. After a failure nothing is loaded.
    void readGrainData();

    /// Reads the record at the stream's position, at most two reads, into `target` and deciphers
    /// it. `target` ends at the record's padding; with a cipher, at the end of the data.
    void readCompressedGrain(yx::TBuffer<unsigned char>& target);

    /// Reads the grain at the stream's position into `target` and deciphers it.
    void readUncompressedGrain(yx::TBuffer<unsigned char>& target);

    /// Makes the prepared zero grain that of the given disk grain index.
    void initZeroGrainData(__int64 grainIndex);

    /// What both public forms do.
    void writePreparedGrainDataImpl(yx::TConstBufferSlice<unsigned char> const& data,
                                    bool keepBuffer);

    /// Enciphers and stores prepared data, where the table above says.
    void writePreparedGrainDataInternal(yx::TConstBufferSlice<unsigned char> const& data,
                                        bool keepBuffer);

private:
    void verifySizes() const;
    void verifySlot(__int64 slotSizeSectors) const;
    void verifyPlace(__int64 diskGrainIndex, __int64 posSectors) const;
    void verifyReadRange(int size) const;
    void verifyWriteRange(int size) const;
    void verifyWritable(char const* function) const;
    unsigned int verifiedCompressedSize(unsigned char const* record) const;

    __int64 calcWorstCaseGrainSizeSectors() const;
    __int64 calcDiskPosition() const;
    yx::CProps uriProps() const;
    yx::CProps placeProps() const;
    /// Where the file holds the grain; 0 if it does not.
    __int64 getStoredPosSectors() const {
        return m_grainPosSectors > 0 ? m_grainPosSectors : m_abandonedPosSectors;
    }

    bool isLoaded() const { return m_grainData.getUsed() != 0; }
    /// Also when the plain bytes are not.
    bool isRecordLoaded() const { return m_preparedData.getUsed() != 0; }
    void resetToClosed();
    void dropLoadedData();
    void seekToGrain();
    int countReadableGrains(void* target, int grainCount);
    void reserveWorstCase(yx::TBuffer<unsigned char>& buffer) const;
    void makeCurrentGrainIV();

    void readFallbackData(__int64 posInGrain, void* target, int size);
    void loadGrainData();
    void loadRecord();
    void readWholeCompressedGrain(void* target);
    void readPreparedFromExtent(yx::TBuffer<unsigned char>& target);
    void decipherRecord(int storedSizeBytes, yx::TBuffer<unsigned char>& target);

    void encipherRecord(yx::TConstBufferSlice<unsigned char> const& data);
    void encipherUncompressed(yx::TConstBufferSlice<unsigned char> const& data);
    unsigned char const* padToGrain(yx::TConstBufferSlice<unsigned char> const& data);
    void store(yx::TConstBufferSlice<unsigned char> const& data, bool keepBuffer);
    void overwrite(yx::TConstBufferSlice<unsigned char> const& data, bool keepBuffer);
    void allocate(yx::TConstBufferSlice<unsigned char> const& data, bool keepBuffer,
                  int slotSizeSectors);

    yx::P<yx::IIOStream> m_stream;
    yx::IIOStream::Access m_access;
    yx::P<IVMDKGrainAllocator> m_allocator;
    __int64 m_grainPosSectors = -1;
    __int64 m_slotSizeSectors = -1;
    __int64 m_extentGrainIndex = -1;
    __int64 m_diskGrainIndex = -1;
    __int64 m_grainSizeSectors;
    __int64 m_grainSizeBytes = 0;
    bool m_compressed;
    int m_compressionLevel;
    yx::P<IVMDKDataProvider> m_fallbackDataProvider;
    yx::TBuffer<unsigned char> m_grainData;
    bool m_dirty = false;
    __int64 m_posInGrain = 0;
    yx::P<CVMDKDataPreparer> m_dataPreparer;
    __int64 m_worstCaseGrainSizeSectors = 0;
    yx::TBuffer<unsigned char> m_preparedData;
    yx::P<yx::TBuffer<unsigned char>> m_zeroGrainData;
    yx::P<yx::TBuffer<unsigned char>> m_zeroGrainAuxData;
    yx::P<yx::TBuffer<unsigned char>> m_preparedZeroGrainData;
    yx::TBuffer<unsigned char> m_parentPreparedData;
    yx::P<krym::ICipher> m_cipher;
    int m_cipherBlockSize = 0;
    yx::TCryptBuffer<unsigned char> m_encryptionKey;
    yx::TBuffer<unsigned char> m_encryptionIV;
    yx::TBuffer<unsigned char> m_cipherData;
    yx::TBuffer<unsigned char> m_grainIV;
    yx::TBuffer<unsigned char> m_paddedGrainData;
    /// The slot that was given up when no new one could be had: the file's tables still name it. 0
    /// for none.
    __int64 m_abandonedPosSectors = 0;
};

} // namespace kelm

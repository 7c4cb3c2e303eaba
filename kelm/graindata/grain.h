#pragma once

#include "kelm/export.h"
#include "kelm/extent/data_provider.h"
#include "kelm/graindata/prepared_zero_grain.h"
#include "kelm/metadata/igrain_allocator.h"
#include "krym/krym.h"
#include "yx/stream.h"

namespace kelm {

/// Reads and writes the grains of a sparse extent, one at a time. It is opened on a grain and keeps
/// that grain's plain bytes in memory, so that many small reads and writes access the file only
/// once. It does not look up where a grain lies: `CVMDKSparseExtentFile` does, and is the class to
/// use for reading and writing an extent.
///
/// The bytes come from the extent file if the grain has a position there, otherwise from the
/// fallback data provider (the parent disk); without a provider they are zeros. `write` changes
/// memory only. The file changes in `flushChangesToStream`, which `open`, `close`,
/// `readPreparedGrainData` and the destructor call. Stored data are compressed first and enciphered
/// second; `CVMDKDataPreparer` has the layout.
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
/// So first writes leave no gaps, and a grain that has outgrown its slot once never moves again.
///
/// Errors of the stream, the allocator, the provider, the cipher and the decoder pass through. The
/// stream's position is shared with the tables and the allocator, so the grain seeks before each
/// use. Once the buffers have grown, reading and writing allocate nothing. Not thread-safe.
class KELM_API CVMDKGrain : public yx::CBase, public virtual yx::IBase {
public:
    /// The grain is closed at first. `fallbackDataProvider`, `cipher` and, for reading only,
    /// `allocator` may be null. With a cipher, `encryptionIV` must have at least the size of one
    /// cipher block; otherwise enciphering and deciphering throw `yx::CInvalidArgError`.
    ///
    /// Throws `yx::CIOError` `CorruptData` with "uri" for a grain size below 1 or above
    /// `CVMDKDataPreparer::kMaxGrainSizeSectors`, and `yx::CInvalidArgError` with "uri" for a
    /// cipher block size below 1 or above a sector.
    CVMDKGrain(yx::IIOStream* stream, yx::IIOStream::Access access, __int64 grainSizeSectors,
               IVMDKGrainAllocator* allocator, bool compressed, int compressionLevel,
               IVMDKDataProvider* fallbackDataProvider, krym::ICipher* cipher,
               yx::TCryptBuffer<unsigned char> const& encryptionKey,
               yx::TBuffer<unsigned char> const& encryptionIV);

    /// A copy shares the stream, the allocator and the preparer, and takes unflushed changes along.
    /// An assignment drops those of its target.
    CVMDKGrain(CVMDKGrain const&);
    CVMDKGrain& operator=(CVMDKGrain const&);

    /// Closes. If the flush fails, this is reported to `yx::onExceptionInDestructorIgnored`, and
    /// the changes are lost.
    ~CVMDKGrain() override;

    /// Flushes, and moves to the first byte of another grain without reading it.
    ///
    /// `extentGrainIndex` counts within the extent and is used for the allocator; `diskGrainIndex`
    /// counts over the whole disk and is used for everything else. `posSectors` below 1 means that
    /// the grain has no data in this extent; `slotSizeSectors` is then ignored.
    ///
    /// If the flush fails, nothing changes. Throws `yx::CInvalidArgError` at "CVMDKGrain::open",
    /// and leaves the grain closed, for a slot below 1 sector in a compressed extent, a slot below
    /// the grain size in an uncompressed one, and a position or disk grain index whose position in
    /// bytes exceeds 64 bits.
    void open(__int64 extentGrainIndex, __int64 diskGrainIndex, __int64 posSectors,
              __int64 slotSizeSectors);

    /// Flushes and closes the grain. If the flush fails, the grain stays open with its changes.
    void close();

    /// Whether a grain is open.
    bool isOpen() const;

    /// Sets the position in the grain, in bytes, from 0 to below the grain size. Throws
    /// `yx::CInvalidArgError` with "uri", "position" and "grainSize" for any other.
    void seek(__int64 position);

    /// The byte position in the grain; after the last byte it is the grain size. 0 when closed.
    __int64 getPosition() const;

    /// The bytes from the position to the grain's end; 0 when closed.
    int getBytesLeft();

    /// Reads exactly `size` bytes and moves the position past them. Throws `yx::CInvalidArgError`
    /// with "uri" for a negative size, and `yx::CIOError` `UnexpectedEnd` with "uri", "position"
    /// and "bytesToRead" for a size that exceeds the grain.
    ///
    /// A grain without a position is not loaded: the requested bytes come straight from the
    /// provider. A whole compressed grain is decoded straight into `target`, and its record stays
    /// in memory for further reads. A failure leaves nothing loaded and `target` undefined.
    void read(void* target, int size);

    /// Whether the file holds the grain's bytes as they are, from `getGrainStartPositionSectors`
    /// on, and memory holds none of them. A caller may then read them from the stream by itself.
    bool isInFileAlone() const;

    /// Moves to the grain's end, as reading all of it does, for a caller that has read the bytes by
    /// itself. Does nothing if the grain is closed.
    void skipToEnd();

    /// Flushes, fills `target` with the whole grain in prepared form, deciphered, and moves to the
    /// grain's end. Throws `yx::CIOError` `NotAllowed` with "uri", "posInGrain", "diskGrainIndex"
    /// and "extentGrainIndex" if the position is not 0. After a failure `target` is undefined.
    void readPreparedGrainData(yx::TBuffer<unsigned char>& target);

    /// Flushes, fills `target` with the grain as the file holds it, enciphered
    /// (`CVMDKGrainCipher`), moves to the grain's end and returns true. A record is read up to the
    /// end of the sector in which its data end; what may follow is padding. Where the grain has no
    /// data in this extent, returns false and moves nothing. Throws, in this order, `yx::CError`
    /// without a cipher, `yx::CIOError` `NotAllowed` as `readPreparedGrainData` does, and what that
    /// throws for a record. After a failure `target` is undefined.
    bool tryReadEncipheredGrainData(yx::TBuffer<unsigned char>& target);

    /// Whether the grain holds data here, unflushed changes included, or in the provider.
    bool isGrainWritten();

    /// Whether the grain holds data here, unflushed changes included.
    bool isGrainWrittenAndIndependentOfParent();

    /// The grain's first sector; 0 without data in this extent, -1 when closed.
    __int64 getGrainStartPositionSectors() const { return m_grainPosSectors; }

    /// Replaces the source of grains that have no data in this extent; null means zeros.
    void setFallbackDataProvider(IVMDKDataProvider* provider);

    /// Makes a new preparer with this extent's settings.
    yx::P<CVMDKDataPreparer> createDataPreparer();

    /// Writes exactly `size` bytes into memory and moves the position past them. Throws, in this
    /// order, `yx::CInvalidArgError` with "uri" for a negative size, `yx::CIOError` `NotAllowed`
    /// with "uri" for a size that exceeds the grain, and `yx::CError` if the grain was not opened
    /// for reading and writing. A write of a part of the grain loads the rest first; if that fails,
    /// nothing changes.
    void write(void const* source, int size);

    /// Stores the grain if it has changes. A grain that is all zero and has no position is not
    /// stored, and no longer counts as changed. A failure keeps the changes, and the next call
    /// tries again.
    void flushChangesToStream();

    /// Stores a whole grain that is given in prepared form, even if it is all zero, and moves to
    /// the grain's end. Changes in memory are dropped.
    ///
    /// Throws, in this order, `yx::CError` if the grain was not opened for reading and writing, and
    /// `yx::CIOError` `NotAllowed` with "uri", "posInGrain", "diskGrainIndex", "extentGrainIndex"
    /// and "preparedDataSize" if the position is not 0 or `data` is empty. Data that do not fit the
    /// grain's place, or are too short to be enciphered, are refused before anything is written.
    ///
    /// If a compressed grain outgrows its slot and allocating a new one fails, its position is 0
    /// from then on, but it still reads as before, from the old slot.
    void writePreparedGrainData(yx::TBuffer<unsigned char> const& data);

    /// The same for data that the caller does not change afterwards, which the stream may then pass
    /// on without a copy.
    void writePreparedGrainDataKeepBuffer(yx::TConstBufferSlice<unsigned char> const& data);

    /// Stores a whole grain that a `CVMDKGrainCipher` has enciphered for this disk grain index, as
    /// `writePreparedGrainData` stores a prepared one. Throws, in this order, `yx::CError` without
    /// a cipher, what that throws, and `yx::CIOError` `CorruptData` for data that
    /// `CVMDKGrainCipher::verifyIsEnciphered` refuses. Nothing has been written or dropped then.
    void writeEncipheredGrainData(yx::TBuffer<unsigned char> const& data);

    /// Stores the provider's data of this grain in the extent, so that the grain no longer depends
    /// on it. Moves to the grain's end and returns the number of bytes stored. For a grain that has
    /// a position, it stores nothing and returns the grain size in bytes. Without a provider, it
    /// does nothing and returns 0.
    ///
    /// Throws, in this order, `yx::CIOError` `NotAllowed` with "uri", "posInGrain",
    /// "diskGrainIndex" and "extentGrainIndex" if the position is not 0, and `yx::CError` if the
    /// grain was not opened for reading and writing.
    __int64 makeIndependentOfParent();

    /// Sets `iv` to `baseIV`, exclusive-or the 64-bit grain index, which is repeated with its
    /// lowest byte first to the length of `baseIV`. So equal grains at different places of a disk
    /// are enciphered differently.
    static void makeGrainEncryptIV(yx::TBuffer<unsigned char>& iv,
                                   yx::TBuffer<unsigned char> const& baseIV, __int64 grainIndex);

protected:
    /// Loads the plain grain into memory. A failure leaves nothing loaded.
    void readGrainData();

    /// Reads the record at the stream's position into `target`, with at most two reads, and
    /// deciphers it. `target` includes the record's padding; with a cipher it ends with the data.
    void readCompressedGrain(yx::TBuffer<unsigned char>& target);

    /// Reads the grain at the stream's position into `target` and deciphers it.
    void readUncompressedGrain(yx::TBuffer<unsigned char>& target);

    /// Makes the prepared zero grain if there is none, and gives it the disk grain index.
    void initZeroGrainData(__int64 grainIndex);

    /// Does the work of both public forms.
    void writePreparedGrainDataImpl(yx::TConstBufferSlice<unsigned char> const& data,
                                    bool keepBuffer);

    /// Enciphers prepared data and stores them where the table at the class says.
    void writePreparedGrainDataInternal(yx::TConstBufferSlice<unsigned char> const& data,
                                        bool keepBuffer);

private:
    bool isStateSound() const;
    void verifySizes() const;
    void verifySlot(__int64 slotSizeSectors) const;
    void verifyPlace(__int64 diskGrainIndex, __int64 posSectors) const;
    void verifyReadRange(int size) const;
    void verifyWriteRange(int size) const;
    void verifyWritable(char const* function) const;
    void verifyEnciphered(char const* function) const;
    void verifyMayWritePrepared(int dataSizeBytes) const;
    void verifyMayReadPrepared() const;
    unsigned int verifiedCompressedSize(unsigned char const* record) const;

    __int64 calcWorstCaseGrainSizeSectors() const;
    __int64 calcDiskPosition() const;
    yx::CProps uriProps() const;
    yx::CProps placeProps() const;
    /// Where the file holds the grain's data; 0 if it does not.
    __int64 getStoredPosSectors() const {
        return m_grainPosSectors > 0 ? m_grainPosSectors : m_abandonedPosSectors;
    }

    bool isLoaded() const { return m_grainData.getUsed() != 0; }
    /// The record may be loaded without the plain bytes.
    bool isRecordLoaded() const { return m_preparedData.getUsed() != 0; }
    void resetToClosed();
    void dropLoadedData();
    void seekToGrain();
    void reserveWorstCase(yx::TBuffer<unsigned char>& buffer) const;
    void makeCurrentGrainIV();

    void readFallbackData(__int64 posInGrain, void* target, int size);
    void loadGrainData();
    void loadRecord();
    void readWholeCompressedGrain(void* target);
    void readPreparedFromExtent(yx::TBuffer<unsigned char>& target);
    unsigned int readRecord(yx::TBuffer<unsigned char>& record);
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
    CVMDKPreparedZeroGrain m_preparedZeroGrain;
    yx::TBuffer<unsigned char> m_parentPreparedData;
    yx::P<krym::ICipher> m_cipher;
    int m_cipherBlockSize = 0;
    yx::TCryptBuffer<unsigned char> m_encryptionKey;
    yx::TBuffer<unsigned char> m_encryptionIV;
    yx::TBuffer<unsigned char> m_cipherData;
    yx::TBuffer<unsigned char> m_grainIV;
    yx::TBuffer<unsigned char> m_paddedGrainData;
    /// The position of the old slot while a grain that has outgrown it has no new one: the tables
    /// still point to it. 0 if there is no such slot.
    __int64 m_abandonedPosSectors = 0;
};

} // namespace kelm

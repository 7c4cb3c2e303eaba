#pragma once

#include <limits>

#include "kelm/export.h"
#include "kelm/format/constants.h"
#include "yx/buffer.h"
#include "yx/simple_compressor.h"

namespace kelm {

/// Converts a grain from plain bytes to the form in which a file stores it, and back. It does not
/// encipher: `CVMDKGrain` does that to the prepared form.
///
/// An uncompressed grain is stored as it is. A compressed grain becomes a record, little-endian,
/// which begins at the first byte of the grain's sector:
///
///     offset  size                 field                meaning
///     0       8                    lba                  the grain's first sector, counted over
///                                                       the whole disk
///     8       4                    compressedGrainSize  size of the data in bytes, before
///                                                       enciphering
///     12      compressedGrainSize  data                 a zlib stream (RFC 1950)
///     then    to a sector's end    padding              zero bytes; none if the data end there
///
/// Enciphering leaves the 12 bytes of the header plain and enciphers the rest of the padded record,
/// data and padding together, as one message:
///
///     0       12                   header               as above, byte for byte
///     12      rounded up to blocks enciphered           data and padding
///
/// With cipher blocks of 16 bytes, a record of k sectors becomes 512 * k + 12 bytes and takes k + 1
/// sectors.
///
/// Buffers: each operation takes a source and an auxiliary buffer and returns one of the two.
/// Without compression it returns the source and leaves the auxiliary buffer alone; with
/// compression it returns the auxiliary buffer and leaves the source alone. Nothing is allocated
/// once the auxiliary buffer has grown. Use only the returned buffer, and do not change either
/// buffer while it is in use.
///
/// A preparer may be used by one thread at a time. Preparers that are no copies of each other share
/// nothing.
class KELM_API CVMDKDataPreparer : public yx::CBase, public virtual yx::IBase {
public:
    /// The largest grain, just below 1 GiB: a reader accepts records of up to the size of two
    /// grains, and such a record, rounded up to cipher blocks and sectors, must fit into a buffer.
    static constexpr __int64 kMaxGrainSizeSectors =
        (std::numeric_limits<int>::max() / 2 - kSectorSizeBytes) / kSectorSizeBytes;

    /// `compressionLevel` is that of `CVMDKCompressor`. A grain size below 1 or above
    /// `kMaxGrainSizeSectors` is `yx::CInvalidArgError` at "CVMDKDataPreparer constructor".
    CVMDKDataPreparer(__int64 grainSizeSectors, bool compressed, int compressionLevel);

    /// A copy shares the coder, so it belongs to the same thread.
    CVMDKDataPreparer(CVMDKDataPreparer const&);
    CVMDKDataPreparer& operator=(CVMDKDataPreparer const&);

    ~CVMDKDataPreparer() override;

    /// Whether prepared data differ from plain data, which they do only with compression.
    bool doesAnything() const { return static_cast<bool>(m_compressor); }

    /// The maximum size of a prepared grain in sectors, before enciphering.
    __int64 getWorstCaseGrainSizeSectors() const { return m_worstCaseGrainSizeSectors; }

    /// Prepares a plain grain, or the beginning of one; `grainIndex` counts over the whole disk.
    ///
    /// Throws `yx::CInvalidArgError` at "CVMDKDataPreparer::prepareGrainData" without properties
    /// for, in this order: a null source, a null auxiliary buffer, a source bigger than a grain,
    /// and, with compression, the same buffer in both places. If memory runs out while compressing,
    /// throws `yx::CError`; the auxiliary buffer is then undefined.
    yx::P<yx::TBuffer<unsigned char>> prepareGrainData(yx::TBuffer<unsigned char>* source,
                                                       __int64 grainIndex,
                                                       yx::TBuffer<unsigned char>* aux);

    /// Returns the plain grain of a prepared one. With compression it always has full size: if the
    /// record holds less, zeros follow. The record's header is ignored.
    ///
    /// With compression, throws `yx::CInvalidArgError` for a null buffer or the same buffer in both
    /// places, and `yx::CIOError` `CorruptData` for a record too short for its header and for data
    /// that cannot be decoded. The auxiliary buffer is then undefined.
    yx::P<yx::TBuffer<unsigned char>> unprepareGrainData(yx::TBuffer<unsigned char>* source,
                                                         yx::TBuffer<unsigned char>* aux);

    /// The same for compressed grains only, into memory of the caller's, which has room for a grain
    /// and is undefined after a failure. Throws `yx::CInvalidArgError` without compression, and for
    /// a null source.
    void unprepareGrainDataTo(yx::TBuffer<unsigned char>* source, void* target);

    /// Gives a prepared grain another index. With compression this overwrites `lba`; without, it
    /// does nothing. Throws `yx::CIOError` `CorruptData` for a record too short for its header.
    void patchGrainIndexInPreparedGrainData(yx::TBuffer<unsigned char>& prepared,
                                            __int64 grainIndex);

private:
    void decode(yx::TBuffer<unsigned char> const& source, unsigned char* target);
    unsigned long long calcLBA(__int64 grainIndex) const;

    __int64 m_grainSizeSectors;
    __int64 m_grainSizeBytes = 0;
    yx::P<yx::ISimpleCompressor> m_compressor;
    __int64 m_compressedSizeUpperBound = -1;
    __int64 m_worstCaseGrainSizeSectors = 0;
};

} // namespace kelm

#pragma once

#include <limits>

#include "kelm/export.h"
#include "kelm/format/constants.h"
#include "yx/buffer.h"
#include "yx/simple_compressor.h"

namespace kelm {

/// Turns the plain bytes of a grain into the form in which a file stores it, and back.
///
/// An uncompressed grain is stored as it is. A compressed one becomes a record, little-endian,
/// which begins at the first byte of the grain's sector:
///
///     offset  size                 field                meaning
///     0       8                    lba                  the grain's first sector, counted over
///                                                       the whole disk
///     8       4                    compressedGrainSize  size of the data in bytes, before
///                                                       enciphering
///     12      compressedGrainSize  data                 a zlib stream (RFC 1950)
///     then    to a sector's end    padding              zero bytes; none if the data end on one
///
/// Enciphering comes after this class, in `CVMDKGrain`. It leaves the 12 bytes of the header plain
/// and enciphers the rest of the padded record, data and padding together, as one message:
///
///     0       12                   header               as above, byte for byte
///     12      rounded up to blocks enciphered           data and padding
///
/// With blocks of 16 bytes a record of k sectors becomes 512 * k + 12 bytes, and takes k + 1
/// sectors.
///
/// Buffers: each operation is given a source and an auxiliary buffer and returns one of the two, so
/// that none allocates anything once the auxiliary buffer has grown. Without compression the result
/// is the source itself, and the auxiliary buffer is not touched; with compression it is the
/// auxiliary buffer, and the source is not touched. So use what is returned, and keep both buffers
/// as they are for as long.
///
/// One preparer serves one thread at a time; different preparers share nothing.
class KELM_API CVMDKDataPreparer : public yx::CBase, public virtual yx::IBase {
public:
    /// The largest grain, just below 1 GiB: a reader admits records of up to two grains' size, and
    /// such a record, rounded up to cipher blocks and sectors, must fit a buffer.
    static constexpr __int64 kMaxGrainSizeSectors =
        (std::numeric_limits<int>::max() / 2 - kSectorSizeBytes) / kSectorSizeBytes;

    /// `compressionLevel` is that of `CVMDKCompressor`. A grain size below 1 or above
    /// `kMaxGrainSizeSectors` is `yx::CInvalidArgError` at "CVMDKDataPreparer constructor".
    CVMDKDataPreparer(__int64 grainSizeSectors, bool compressed, int compressionLevel);

    /// Whether prepared data differ from plain data, that is, whether there is compression.
    bool doesAnything() const { return static_cast<bool>(m_compressor); }

    /// The most sectors that a prepared grain can take, before enciphering.
    __int64 getWorstCaseGrainSizeSectors() const { return m_worstCaseGrainSizeSectors; }

    /// Prepares a plain grain, or the beginning of one; `grainIndex` counts over the whole disk.
    ///
    /// Refuses, by `yx::CInvalidArgError` at "CVMDKDataPreparer::prepareGrainData" without
    /// properties, in this order: a null source, a null auxiliary buffer, a source bigger than a
    /// grain, and, with compression, one buffer in both places. A compression that fails, for which
    /// only a want of memory remains, is `yx::CError`. The auxiliary buffer is then undefined.
    yx::P<yx::TBuffer<unsigned char>> prepareGrainData(yx::TBuffer<unsigned char>* source,
                                                       __int64 grainIndex,
                                                       yx::TBuffer<unsigned char>* aux);

    /// The plain grain of a prepared one, always of full size: zeros follow what a short source had
    /// held. The record's header is not looked at.
    ///
    /// With compression, a null or doubly used buffer is `yx::CInvalidArgError`, and a record too
    /// short for its header, as well as data that do not decode, `yx::CIOError` `CorruptData`. The
    /// auxiliary buffer is then undefined.
    yx::P<yx::TBuffer<unsigned char>> unprepareGrainData(yx::TBuffer<unsigned char>* source,
                                                         yx::TBuffer<unsigned char>* aux);

    /// The same with compression only, into memory of the caller's own, which has room for a grain
    /// and is undefined after a failure. Without compression there is nothing to undo, and this is
    /// `yx::CInvalidArgError`, as for a null source.
    void unprepareGrainDataTo(yx::TBuffer<unsigned char>* source, void* target);

    /// Makes a prepared grain that of another index: with compression it overwrites `lba`, without
    /// it does nothing. A record too short for its header is `yx::CIOError` `CorruptData`.
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

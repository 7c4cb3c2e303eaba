#pragma once

#include <vector>

#include "host/disk/altered_stream.h"
#include "host/disk/regular_places.h"
#include "kelm/format/sparse_extent_header.h"
#include "yx/access_stream.h"
#include "yx/native_stream.h"

namespace kelm::host {

/// Shows the file of a compressed extent with the slot sizes that a power cut has kept from it. A
/// flush writes the places of grains before the sizes of their slots, and a grain with a place and
/// without a slot cannot be opened. Here such a grain has a slot of its record's size, as
/// `repairSlots` gives it once somebody opens the disk for writing. Where no record of the grain
/// lies at its place, within the file, the size stays 0. The file is not changed.
///
/// Whoever reads slot sizes makes this look at the grain tables beside them, if any is 0. Only then,
/// and only for grains that have a place, the directories and records are looked at. What cannot be
/// read of them leaves sizes as they are and is no error. Keeps nothing; a read takes at most 160
/// KiB of memory.
class SlotFillingStream : public AlteredStream,
                          public virtual yx::IAccessStream,
                          public virtual yx::INativeStream {
public:
    /// `stream` is open for reading, without demands on alignment. `startBytes` is where the extent
    /// begins in the disk. A stream on a file that has no slot sizes where the library puts them,
    /// or is no extent, is returned as it is.
    static yx::P<yx::IIOStream> over(yx::P<yx::IIOStream> const& stream, __int64 startBytes);

    /// Over the file of a compressed extent with this header, whose metadata lie at `places`.
    SlotFillingStream(yx::P<yx::IIOStream> stream, CVMDKSparseExtentHeader const& header,
                      RegularPlaces const& places, __int64 startGrainIndex);

    /// It changes nothing.
    yx::IIOStream::Access getAccess() const override { return yx::IIOStream::ReadOnly; }

    /// The file as it is, with slot sizes of 0; all else is in it as this shows it.
    int getFileDescriptor() const override;

private:
    /// A part of what was read that lies in one table of slot sizes.
    struct Piece {
        __int64 table;

        /// Where it begins in the table, and its bytes.
        int startBytes;
        int sizeBytes;
        unsigned char* bytes;
    };

    void alter(__int64 positionBytes, unsigned char* target, int sizeBytes) override;
    std::vector<Piece> findPieces(__int64 positionBytes, unsigned char* target,
                                  int sizeBytes) const;
    void fill(Piece const* pieces, std::size_t count);
    void fillPiece(Piece const& piece, std::vector<unsigned int> const& positions);
    bool isWhereItShouldBe(__int64 table);
    bool hasEntry(__int64 directorySector, __int64 table, __int64 tableSector);
    int findSlotSize(__int64 grain, __int64 posSectors);

    CVMDKSparseExtentHeader m_header;
    RegularPlaces m_places;
    __int64 m_startGrainIndex;
    __int64 m_tableCount;
};

} // namespace kelm::host

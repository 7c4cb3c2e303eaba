#pragma once

#include <optional>
#include <string>

#include "host/disk/regular_places.h"
#include "kelm/format/sparse_extent_header.h"
#include "yx/stream.h"

namespace kelm::host {

/// What the descriptor says of one of the disk's extents, without a look into its file.
struct ExpectedExtent {
    /// The length of its stretch of the disk.
    __int64 sizeSectors = 0;

    /// Whether its grains are compressed, by the disk's type.
    bool isCompressed = false;

    /// Whether the file has the descriptor within it.
    bool holdsDescriptor = false;

    /// Whether the disk was made by this program, so that its grain size and the places of its
    /// metadata are known.
    bool isOfOurs = false;

    /// What the header has as the hash of the disk's key; empty for a disk that is not encrypted.
    yx::TBuffer<unsigned char> keyHash;
};

/// The header of an extent file, from wherever it can be had:
///
/// 1. The header itself, if it fits the descriptor and its directories are where it says.
/// 2. The copy of it in the trail of a compressed extent.
/// 3. What the library would have written. All metadata of its files lie where `RegularPlaces` has
///    them, and their directories, of which a file has two, show whether that is so.
///
/// What the header alone knows, such as the bytes of other software behind its fields, is taken
/// from the first of them that can be read.
///
/// Nothing, if none of these is to be had. Sectors that cannot be read count as lost.
std::optional<CVMDKSparseExtentHeader> findHeader(yx::IIOStream& stream,
                                                  ExpectedExtent const& expected);

/// The record of a header, 512 bytes.
std::string makeHeaderRecord(CVMDKSparseExtentHeader header);

/// How many grain tables an extent with this header has.
__int64 countTables(CVMDKSparseExtentHeader const& header);

/// The header that a file begins with, read in small pieces; nothing if it begins with something
/// else. Throws what the stream and `CVMDKSparseExtentHeader::load` throw, and leaves the stream
/// anywhere.
std::optional<CVMDKSparseExtentHeader> tryReadHeader(yx::IIOStream& stream);

/// The sector behind the header and the descriptor within the file.
__int64 findFirstMetadataSector(CVMDKSparseExtentHeader const& header);

/// Where the metadata of an extent with this header lie, if the library has made it and they fit a
/// file of this length. Nothing where the header has its directories elsewhere, as other software
/// does, or sizes that cannot be.
std::optional<RegularPlaces> findRegularPlaces(CVMDKSparseExtentHeader const& header,
                                               __int64 fileBytes);

} // namespace kelm::host

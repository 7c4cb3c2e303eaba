#pragma once

#include "kelm/export.h"
#include "yx/data_out_stream.h"

namespace kelm {

/// What follows a marker. The last two are a private extension of the format.
enum VMDKMarkerID : unsigned int {
    VMDKMarkerEndOfStream = 0,    ///< nothing; it is the file's last sector
    VMDKMarkerGrainTable = 1,     ///< one grain table
    VMDKMarkerGrainDirectory = 2, ///< one grain directory
    VMDKMarkerFooter = 3,         ///< one copy of the header record
    VMDKMarkerYxSlotSizeTable = 0x18349001,
    VMDKMarkerYxSlotSizeDirectory = 0x18349002,
};

// All helpers that take a `zeroBuffer` take their zero bytes from it and allocate nothing. The
// caller makes it all zero, with a used size of at least 512; a smaller one that would not do is
// `yx::CInvalidArgError`. Errors of the stream pass through.

/// Writes a marker sector at the stream's position. `value` is the number of sectors of the
/// structure that follows, 0 for the end-of-stream marker.
KELM_API void writeVMDKMarker(yx::CDataOutStream& stream, VMDKMarkerID type, __int64 value,
                              yx::TBuffer<unsigned char> const& zeroBuffer);

/// Whether the 512 bytes at `sector` are a metadata marker of that type. `value`, which may be
/// null, receives the marker's value, or 0.
KELM_API bool isVMDKMarker(unsigned char const* sector, VMDKMarkerID type, __int64* value);

/// Writes `byteCount` zero bytes in pieces of at most the used size of `zeroBuffer`; nothing if
/// `byteCount` is 0 or less.
KELM_API void vmdkWritePadding(yx::IOutStream& stream, int byteCount,
                               yx::TBuffer<unsigned char> const& zeroBuffer);

/// The stream's position in sectors. A position within a sector is `yx::CError` "Internal error in
/// kelm::getStreamPositionVMDKSectors. Stream position should be a multiple of 512 but it is not."
/// with "position" and "uri".
KELM_API __int64 getStreamPositionVMDKSectors(yx::IStreamBase& stream);

/// The tables that `grainCount` grains need, 512 grains each.
KELM_API __int64 getVMDKTableCount(__int64 grainCount);

/// The size of a grain directory, or of a slot size directory, of `tableCount` entries.
KELM_API __int64 getVMDKDirectorySizeSectors(__int64 tableCount);

/// Writes, at the stream's position, a grain directory that points to `tableCount` tables, and the
/// empty tables behind it: 4 sectors each, 5 with their markers. The directory's entries point
/// behind the markers.
///
/// The stream must stand on a sector boundary. `yx::CError` "Internal error. Stream position after
/// writing VMDK grain directories is not the expected on (expected: " and so on, if it stands
/// elsewhere than foreseen behind the directory. A negative `tableCount` is `yx::CInvalidArgError`.
/// Sector numbers above 32 bits are cut: extent files stay below 2 TiB.
KELM_API void writeEmptyVMDKGrainDirectoryAndTables(yx::CDataOutStream& stream, __int64 tableCount,
                                                    yx::TBuffer<unsigned char> const& zeroBuffer,
                                                    bool withMarkers);

/// The same for the slot size structures: a marker, the slot size directory, and `tableCount`
/// empty tables of 2 sectors behind their markers. They exist only in files with markers.
KELM_API void writeEmptyVMDKSlotSizeDirectoryWithMarkerAndTablesWithMarkers(
    yx::CDataOutStream& stream, __int64 tableCount, yx::TBuffer<unsigned char> const& zeroBuffer);

} // namespace kelm

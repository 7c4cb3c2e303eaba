#include "kelm/format/marker.h"

#include <algorithm>
#include <array>
#include <optional>

#include "kelm/format/constants.h"
#include "kelm/format/internal/little_endian.h"
#include "yx/error.h"

namespace kelm {

// A marker, one sector, little-endian:
//
//   offset  size
//        0     8  value: sectors of the structure that follows, 0 for the end-of-stream marker
//        8     4  size: 0; anything else makes the sector no metadata marker
//       12     4  type: a VMDKMarkerID
//       16   496  padding, all zero
//
// Empty metadata of T tables, D = (T * 4 + 511) / 512 sectors for a directory:
//
//   grain directory    D sectors: T times the 32-bit sector of a table, zeros up to the sector's
//   end T times            [marker of type grain table, value 4,] grain table of 4 sectors
//
//   marker of type slot size directory, value D
//   slot size directory   D sectors, as above
//   T times               marker of type slot size table, value 2, slot size table of 2 sectors
//
// A directory names the sector of its table, not that of the table's marker.

namespace {

constexpr int kSizeOffset = 8;
constexpr int kTypeOffset = 12;
constexpr int kMarkerPaddingOffset = 16;
constexpr int kMarkerPaddingSizeBytes = kSectorSizeBytes - kMarkerPaddingOffset;
constexpr int kMarkerSizeSectors = 1;

void verifyZeroBuffer(yx::TBuffer<unsigned char> const& zeroBuffer, int neededBytes,
                      char const* function) {
    if (zeroBuffer.getUsed() < neededBytes) {
        throw yx::CInvalidArgError(
            function, "Zero buffer too small: " + yx::toString(zeroBuffer.getUsed()), yx::CProps());
    }
}

void verifyTableCount(__int64 tableCount, char const* function) {
    if (tableCount < 0) {
        throw yx::CInvalidArgError(function, "Invalid table count: " + yx::toString(tableCount),
                                   yx::CProps());
    }
}

/// Writes the sector numbers of `tableCount` tables, the first at `firstSector` and each
/// `stepSectors` behind the one before.
void writeDirectoryEntries(yx::CDataOutStream& stream, __int64 tableCount, __int64 firstSector,
                           int stepSectors) {
    // Whole sectors of entries at a time: a call for each of many thousand entries would show.
    constexpr int kEntriesPerPiece = kSectorSizeBytes / kDirectoryEntrySizeBytes;
    std::array<unsigned char, kSectorSizeBytes> piece;
    __int64 sector = firstSector;
    while (tableCount > 0) {
        int const entries = static_cast<int>(std::min<__int64>(tableCount, kEntriesPerPiece));
        unsigned char* entry = piece.data();
        for (int i = 0; i < entries; ++i) {
            storeLittleEndian(entry, static_cast<unsigned int>(sector));
            entry += kDirectoryEntrySizeBytes;
            sector += stepSectors;
        }
        stream.write(piece.data(), entries * kDirectoryEntrySizeBytes, nullptr);
        tableCount -= entries;
    }
}

void padToSectorBoundary(yx::CDataOutStream& stream, yx::TBuffer<unsigned char> const& zeroBuffer,
                         char const* function) {
    int const rest = static_cast<int>(stream.getPosition() % kSectorSizeBytes);
    if (rest == 0)
        return;
    verifyZeroBuffer(zeroBuffer, kSectorSizeBytes - rest, function);
    stream.write(zeroBuffer.getData(), kSectorSizeBytes - rest, nullptr);
}

void verifyPositionBehindDirectory(yx::CDataOutStream& stream, __int64 expectedSector) {
    __int64 const sector = getStreamPositionVMDKSectors(stream);
    if (sector != expectedSector) {
        // Deliberate: "on", and "grain directories" for the slot size directory too; these are the
        // words that logs are searched for.
        throw yx::CError("Internal error. Stream position after writing VMDK grain directories is "
                         "not the expected on (expected: " +
                             yx::toString(expectedSector) +
                             " sectors, actual: " + yx::toString(sector) + " sectors)",
                         "", -1, yx::CProps(), nullptr);
    }
}

/// Writes, from a sector boundary on, a directory of `tableCount` tables and the empty tables
/// behind it, each of them behind its marker if they have one.
void writeEmptyDirectoryAndTables(yx::CDataOutStream& stream, __int64 tableCount,
                                  int tableSizeSectors, std::optional<VMDKMarkerID> tableMarker,
                                  yx::TBuffer<unsigned char> const& zeroBuffer,
                                  char const* function) {
    int const markerSectors = tableMarker ? kMarkerSizeSectors : 0;
    __int64 const firstTableSector =
        getVMDKDirectorySizeSectors(tableCount) + getStreamPositionVMDKSectors(stream);
    writeDirectoryEntries(stream, tableCount, firstTableSector + markerSectors,
                          markerSectors + tableSizeSectors);
    padToSectorBoundary(stream, zeroBuffer, function);
    verifyPositionBehindDirectory(stream, firstTableSector);
    for (__int64 i = 0; i < tableCount; ++i) {
        if (tableMarker)
            writeVMDKMarker(stream, *tableMarker, tableSizeSectors, zeroBuffer);
        vmdkWritePadding(stream, tableSizeSectors * kSectorSizeBytes, zeroBuffer);
    }
}

} // namespace

void writeVMDKMarker(yx::CDataOutStream& stream, VMDKMarkerID type, __int64 value,
                     yx::TBuffer<unsigned char> const& zeroBuffer) {
    verifyZeroBuffer(zeroBuffer, kMarkerPaddingSizeBytes, "writeVMDKMarker");
    std::array<unsigned char, kMarkerPaddingOffset> fields = {};
    storeLittleEndian(fields.data(), value);
    storeLittleEndian<unsigned int>(fields.data() + kTypeOffset, type);
    stream.write(fields.data(), kMarkerPaddingOffset, nullptr);
    stream.write(zeroBuffer.getData(), kMarkerPaddingSizeBytes, nullptr);
}

bool isVMDKMarker(unsigned char const* sector, VMDKMarkerID type, __int64* value) {
    if (value)
        *value = 0;
    if (loadLittleEndian<unsigned int>(sector + kSizeOffset) != 0)
        return false;
    if (loadLittleEndian<unsigned int>(sector + kTypeOffset) != type)
        return false;
    if (!yx::isAllZero(sector + kMarkerPaddingOffset, kMarkerPaddingSizeBytes))
        return false;
    if (value)
        *value = static_cast<__int64>(loadLittleEndian<unsigned long long>(sector));
    return true;
}

void vmdkWritePadding(yx::IOutStream& stream, int byteCount,
                      yx::TBuffer<unsigned char> const& zeroBuffer) {
    if (byteCount > 0)
        verifyZeroBuffer(zeroBuffer, 1, "vmdkWritePadding");
    while (byteCount > 0) {
        int const piece = std::min(byteCount, zeroBuffer.getUsed());
        stream.write(zeroBuffer.getData(), piece, nullptr);
        byteCount -= piece;
    }
}

__int64 getStreamPositionVMDKSectors(yx::IStreamBase& stream) {
    __int64 const position = stream.getPosition();
    if (position % kSectorSizeBytes != 0) {
        throw yx::CError("Internal error in kelm::getStreamPositionVMDKSectors. Stream position "
                         "should be a multiple of 512 but it is not.",
                         "", -1,
                         yx::CProps()
                             .add("position", yx::toString(position))
                             .add("uri", stream.getURI().toString(true)),
                         nullptr);
    }
    return position / kSectorSizeBytes;
}

__int64 getVMDKTableCount(__int64 grainCount) {
    return grainCount / kGrainTableEntryCount + (grainCount % kGrainTableEntryCount != 0 ? 1 : 0);
}

__int64 getVMDKDirectorySizeSectors(__int64 tableCount) {
    // Deliberate: 32 bits, as the entries themselves have. Where this wraps, the test of the
    // position behind the directory fails.
    unsigned int const sizeBytes =
        static_cast<unsigned int>(tableCount) * static_cast<unsigned int>(kDirectoryEntrySizeBytes);
    return (sizeBytes + (kSectorSizeBytes - 1)) / kSectorSizeBytes;
}

void writeEmptyVMDKGrainDirectoryAndTables(yx::CDataOutStream& stream, __int64 tableCount,
                                           yx::TBuffer<unsigned char> const& zeroBuffer,
                                           bool withMarkers) {
    constexpr char kFunction[] = "writeEmptyVMDKGrainDirectoryAndTables";
    verifyTableCount(tableCount, kFunction);
    // Deliberate: tables of 512 entries, whatever a header says; every file made here has these.
    writeEmptyDirectoryAndTables(stream, tableCount, kGrainTableSizeSectors,
                                 withMarkers ? std::optional(VMDKMarkerGrainTable) : std::nullopt,
                                 zeroBuffer, kFunction);
}

void writeEmptyVMDKSlotSizeDirectoryWithMarkerAndTablesWithMarkers(
    yx::CDataOutStream& stream, __int64 tableCount, yx::TBuffer<unsigned char> const& zeroBuffer) {
    constexpr char kFunction[] = "writeEmptyVMDKSlotSizeDirectoryWithMarkerAndTablesWithMarkers";
    verifyTableCount(tableCount, kFunction);
    writeVMDKMarker(stream, VMDKMarkerYxSlotSizeDirectory, getVMDKDirectorySizeSectors(tableCount),
                    zeroBuffer);
    writeEmptyDirectoryAndTables(stream, tableCount, kSlotSizeTableSizeSectors,
                                 VMDKMarkerYxSlotSizeTable, zeroBuffer, kFunction);
}

} // namespace kelm

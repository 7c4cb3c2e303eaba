#include "host/disk/slot_filling_stream.h"

#include <algorithm>
#include <array>
#include <cassert>
#include <cstring>
#include <optional>

#include "host/disk/disk_extent.h"
#include "host/disk/header_finding.h"
#include "host/disk/readable_sectors.h"
#include "host/disk/record_size.h"
#include "kelm/format/constants.h"
#include "kelm/format/internal/little_endian.h"
#include "kelm/format/marker.h"
#include "yx/data_in_stream.h"
#include "yx/optimizing_io_stream.h"

namespace kelm::host {

namespace {

/// So many tables are looked at in one go, which takes 160 KiB.
constexpr std::size_t kTablesPassedAtOnce = 64;

constexpr int kSlotEntryBytes = kSlotSizeTableSizeBytes / kGrainTableEntryCount;
constexpr int kPlacesInSector = kSectorSizeBytes / kDirectoryEntrySizeBytes;

/// Whether the file may begin as a compressed extent, by the first fields of its header. Most
/// extents are plain, and are spared the rest of it.
bool mayBeCompressedExtent(yx::IIOStream& stream) {
    constexpr int kFlagsPosition = 8;
    std::array<unsigned char, kFlagsPosition + sizeof(unsigned int)> start{};
    stream.seek(0);
    int const count = stream.readLax(start.data(), static_cast<int>(start.size()));
    if (count < static_cast<int>(start.size()))
        return false;
    auto const magic = loadLittleEndian<unsigned int>(start.data());
    auto const flags = loadLittleEndian<unsigned int>(start.data() + kFlagsPosition);
    return (magic == kHeaderMagic || magic == kEncryptionExtensionHeaderMagic) &&
           (flags & kFlagCompressed) != 0;
}

/// Nothing if the file does not begin as an extent that can be read.
std::optional<CVMDKSparseExtentHeader> tryReadExtentHeader(yx::P<yx::IIOStream> const& stream) {
    if (stream->getLength() < kSectorSizeBytes || !mayBeCompressedExtent(*stream))
        return std::nullopt;
    try {
        return tryReadHeader(*yx::makeObject<yx::COptimizingIOStream>(stream.get()));
    } catch (yx::CIOError const& error) {
        // What the device fails with is another matter.
        if (error.getCode() != yx::CIOError::CorruptData)
            throw;
        return std::nullopt;
    }
}

/// The entries of a table; 0 for those that cannot be read.
std::vector<unsigned int> readPositions(ReadableSectors const& tables, __int64 firstSector) {
    std::vector<unsigned int> positions(kGrainTableEntryCount);
    for (std::size_t i = 0; i < positions.size(); ++i) {
        std::size_t const sector =
            static_cast<std::size_t>(firstSector) + i / std::size_t{kPlacesInSector};
        if (tables.isReadable[sector]) {
            positions[i] = loadLittleEndian<unsigned int>(
                tables.bytes.data() + firstSector * kSectorSizeBytes +
                static_cast<std::ptrdiff_t>(i * kDirectoryEntrySizeBytes));
        }
    }
    return positions;
}

} // namespace

yx::P<yx::IIOStream> SlotFillingStream::over(yx::P<yx::IIOStream> const& stream,
                                             __int64 startBytes) {
    std::optional<CVMDKSparseExtentHeader> const header = tryReadExtentHeader(stream);
    stream->seek(0);
    if (!header || !header->isCompressed())
        return stream;
    std::optional<RegularPlaces> const places = findRegularPlaces(*header, stream->getLength());
    if (!places)
        return stream;
    DiskExtent extent;
    extent.startBytes = startBytes;
    extent.grainSizeBytes = static_cast<__int64>(header->getGrainSizeSectors()) * kSectorSizeBytes;
    return yx::makeObject<SlotFillingStream>(stream, *header, *places, extent.getStartGrainIndex());
}

SlotFillingStream::SlotFillingStream(yx::P<yx::IIOStream> stream,
                                     CVMDKSparseExtentHeader const& header,
                                     RegularPlaces const& places, __int64 startGrainIndex)
    : AlteredStream(std::move(stream)),
      m_header(header),
      m_places(places),
      m_startGrainIndex(startGrainIndex),
      m_tableCount(countTables(header)) {
    assert(header.isCompressed() && places.slotSizeStrideSectors > 0);
}

int SlotFillingStream::getFileDescriptor() const {
    auto const* const native = dynamic_cast<yx::INativeStream const*>(getTarget().get());
    return native ? native->getFileDescriptor() : -1;
}

void SlotFillingStream::alter(__int64 positionBytes, unsigned char* target, int sizeBytes) {
    std::vector<Piece> const pieces = findPieces(positionBytes, target, sizeBytes);
    if (pieces.empty())
        return;
    std::size_t first = 0;
    while (first < pieces.size()) {
        std::size_t end = first + 1;
        while (end < pieces.size() && end - first < kTablesPassedAtOnce &&
               pieces[end].table == pieces[end - 1].table + 1)
            ++end;
        fill(pieces.data() + first, end - first);
        first = end;
    }
    getTarget()->seek(positionBytes + sizeBytes);
}

/// Those in which a size is 0.
std::vector<SlotFillingStream::Piece> SlotFillingStream::findPieces(__int64 positionBytes,
                                                                    unsigned char* target,
                                                                    int sizeBytes) const {
    std::vector<Piece> pieces;
    __int64 const baseBytes = m_places.slotSizeTableSector * kSectorSizeBytes;
    __int64 const strideBytes = m_places.slotSizeStrideSectors * kSectorSizeBytes;
    __int64 const endBytes =
        std::min(positionBytes + sizeBytes, baseBytes + m_tableCount * strideBytes);
    for (__int64 table = std::max<__int64>(0, positionBytes - baseBytes) / strideBytes;
         baseBytes + table * strideBytes < endBytes; ++table) {
        __int64 const tableBytes = baseBytes + table * strideBytes;
        __int64 const start = std::max(positionBytes, tableBytes);
        __int64 const end = std::min(endBytes, tableBytes + kSlotSizeTableSizeBytes);
        // Half of an entry is nothing that could be judged; no reader of tables asks for it.
        __int64 const first = (start - tableBytes + kSlotEntryBytes - 1) / kSlotEntryBytes;
        __int64 const last = (end - tableBytes) / kSlotEntryBytes;
        if (first >= last)
            continue;
        __int64 const firstBytes = tableBytes + first * kSlotEntryBytes;
        unsigned char* const bytes = target + (firstBytes - positionBytes);
        Piece const piece{table, static_cast<int>(first * kSlotEntryBytes),
                          static_cast<int>((last - first) * kSlotEntryBytes), bytes};
        for (int at = 0; at < piece.sizeBytes; at += kSlotEntryBytes) {
            if (loadLittleEndian<unsigned short>(bytes + at) == 0) {
                pieces.push_back(piece);
                break;
            }
        }
    }
    return pieces;
}

/// Pieces of tables that follow each other.
void SlotFillingStream::fill(Piece const* pieces, std::size_t count) {
    __int64 const firstTable = pieces[0].table;
    ReadableSectors const tables = readReadableSectors(
        *getTarget(), m_places.tableSector + firstTable * m_places.strideSectors,
        static_cast<__int64>(count) * m_places.strideSectors);
    for (std::size_t i = 0; i < count; ++i) {
        __int64 const firstSector = static_cast<__int64>(i) * m_places.strideSectors;
        unsigned char const* const bytes = tables.bytes.data() + firstSector * kSectorSizeBytes;
        if (!yx::isAllZero(bytes, kGrainTableSizeBytes))
            fillPiece(pieces[i], readPositions(tables, firstSector));
    }
}

void SlotFillingStream::fillPiece(Piece const& piece, std::vector<unsigned int> const& positions) {
    bool isKnown = false;
    for (int at = 0; at < piece.sizeBytes; at += kSlotEntryBytes) {
        int const entry = (piece.startBytes + at) / kSlotEntryBytes;
        unsigned int const posSectors = positions[static_cast<std::size_t>(entry)];
        if (posSectors == 0 || loadLittleEndian<unsigned short>(piece.bytes + at) != 0)
            continue;
        if (!isKnown && !isWhereItShouldBe(piece.table))
            return;
        isKnown = true;
        int const size = findSlotSize(piece.table * kGrainTableEntryCount + entry, posSectors);
        storeLittleEndian(piece.bytes + at, static_cast<unsigned short>(size));
    }
}

/// Whether the directories have the tables where they were looked for.
bool SlotFillingStream::isWhereItShouldBe(__int64 table) {
    ReadableSectors const marker =
        readReadableSectors(*getTarget(), m_places.slotSizeDirectorySector - 1, 1);
    return isVMDKMarker(marker.bytes.data(), VMDKMarkerYxSlotSizeDirectory, nullptr) &&
           hasEntry(m_places.directorySector, table,
                    m_places.tableSector + table * m_places.strideSectors) &&
           hasEntry(m_places.slotSizeDirectorySector, table,
                    m_places.slotSizeTableSector + table * m_places.slotSizeStrideSectors);
}

bool SlotFillingStream::hasEntry(__int64 directorySector, __int64 table, __int64 tableSector) {
    ReadableSectors const entries =
        readReadableSectors(*getTarget(), directorySector + table / kPlacesInSector, 1);
    return loadLittleEndian<unsigned int>(entries.bytes.data() +
                                          table % kPlacesInSector * kDirectoryEntrySizeBytes) ==
           tableSector;
}

/// 0 if the record of the grain is not there.
int SlotFillingStream::findSlotSize(__int64 grain, __int64 posSectors) {
    __int64 const roomSectors =
        std::min(getTarget()->getLength() / kSectorSizeBytes - posSectors, kMaxSlotSizeSectors);
    try {
        __int64 const sizeSectors =
            readRecordSizeSectors(*getTarget(), m_header, m_startGrainIndex + grain, posSectors);
        return sizeSectors <= roomSectors ? static_cast<int>(sizeSectors) : 0;
    } catch (yx::CIOError const&) {
        // Who opens the grain is told.
        return 0;
    }
}

} // namespace kelm::host

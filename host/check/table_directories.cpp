#include "host/check/table_directories.h"

#include <algorithm>
#include <cassert>
#include <cstdint>

#include "host/check/check_errors.h"
#include "kelm/format/constants.h"
#include "kelm/format/internal/little_endian.h"
#include "kelm/format/marker.h"

namespace kelm::host {

namespace {

using DirectoryEntry = std::uint32_t;
static_assert(sizeof(DirectoryEntry) == kDirectoryEntrySizeBytes);

} // namespace

bool TableDirectories::find() {
    assert(m_shape.tableCount > 0);
    m_sector = m_shape.header.getGrainDirectoryOffsetSectors();
    m_redundantSector = m_shape.header.getRedundantGrainDirectoryOffsetSectors();
    if (m_shape.tableCount > m_reader.getSizeBytes() / kGrainTableSizeBytes) {
        m_findings.addOnce("the file is too short for the tables of " +
                           std::to_string(m_shape.grainCount) + " grains");
        return false;
    }
    if (!contains(m_sector)) {
        m_findings.addOnce("the grain directory lies outside the file");
        return false;
    }
    if (m_redundantSector != 0 && !contains(m_redundantSector)) {
        m_findings.addOnce("the redundant grain directory lies outside the file");
        m_redundantSector = 0;
    }
    if (m_shape.compressed)
        findSlotSizes();
    return true;
}

bool TableDirectories::contains(unsigned long long directorySector) const {
    return directorySector <= static_cast<unsigned long long>(m_reader.getSizeSectors()) &&
           m_reader.contains(static_cast<__int64>(directorySector),
                             m_shape.tableCount * kDirectoryEntrySizeBytes);
}

/// It stands behind the last table. Disks made by other software have none.
void TableDirectories::findSlotSizes() {
    TablePlaces const last = readPlaces(m_shape.tableCount - 1);
    __int64 const marker = std::max(last.table, last.redundantTable) + kGrainTableSizeSectors;
    if (!m_reader.contains(marker, kSectorSizeBytes))
        return;
    std::optional<ExtentReader::Bytes> const sector =
        m_reader.tryRead(marker, kSectorSizeBytes, "the marker of the slot size directory");
    if (!sector || !isVMDKMarker(sector->data(), VMDKMarkerYxSlotSizeDirectory, nullptr))
        return;
    if (contains(static_cast<unsigned long long>(marker + 1)))
        m_slotSizeSector = static_cast<unsigned long long>(marker + 1);
    else
        m_findings.addOnce("the slot size directory lies outside the file");
}

__int64 TableDirectories::readPlace(unsigned long long directorySector, __int64 table) {
    if (directorySector == 0)
        return -1;
    assert(contains(directorySector));
    ExtentReader::Bytes const entry = m_reader.read(
        static_cast<__int64>(directorySector) * kSectorSizeBytes + table * kDirectoryEntrySizeBytes,
        kDirectoryEntrySizeBytes);
    return loadLittleEndian<DirectoryEntry>(entry.data());
}

TablePlaces TableDirectories::readPlaces(__int64 table) {
    assert(table >= 0 && table < m_shape.tableCount);
    TablePlaces places;
    auto const failure = findingOf([&] {
        places.table = readPlace(m_sector, table);
        places.redundantTable = readPlace(m_redundantSector, table);
        places.slotSizeTable = readPlace(m_slotSizeSector, table);
    });
    if (failure)
        m_findings.addOnce(m_shape.tableAt(table), "the directories cannot be read: " + *failure);
    return places;
}

} // namespace kelm::host

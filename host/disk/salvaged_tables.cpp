#include "host/disk/salvaged_tables.h"

#include <algorithm>
#include <cassert>
#include <cstddef>
#include <optional>

#include "host/disk/header_finding.h"
#include "host/disk/readable_sectors.h"
#include "kelm/format/constants.h"
#include "kelm/format/internal/little_endian.h"
#include "kelm/format/internal/rounding.h"
#include "kelm/format/marker.h"

namespace kelm::host {

namespace {

constexpr int kEntriesInSector = kSectorSizeBytes / kDirectoryEntrySizeBytes;

/// A grain takes less than this much of the file for each of its own sectors, what its earlier
/// places left behind included. Entries far beyond what a file could ever have are no entries.
constexpr __int64 kMostSectorsForEach = 4;

} // namespace

struct SalvagedTables::Entries {
    /// How many could be read, from the first on.
    int count = 0;
    unsigned int sectors[kEntriesInSector] = {};
};

SalvagedTables::SalvagedTables(yx::IIOStream& stream, CVMDKSparseExtentHeader const& header,
                               StoredGrains& grains, CancelFlag const* cancel)
    : m_stream(stream),
      m_grains(grains),
      m_cancel(cancel),
      m_isCompressed(header.isCompressed()),
      m_grainSizeSectors(static_cast<__int64>(header.getGrainSizeSectors())),
      m_overheadSectors(static_cast<__int64>(header.getOverheadSectors())),
      m_fileSectors(stream.getLength() / kSectorSizeBytes),
      m_grainCount(
          roundUpToMultiple(static_cast<__int64>(header.getCapacitySectors()), m_grainSizeSectors) /
          m_grainSizeSectors),
      m_tableCount(countTables(header)),
      m_sectors(static_cast<std::size_t>(m_grainCount)),
      m_states(static_cast<std::size_t>(m_grainCount), State::Lost) {
    takeDirectories(header);
    for (__int64 table = 0; table < m_tableCount; ++table) {
        if (m_cancel)
            m_cancel->check();
        readTable(table);
    }
    settleDisputes();
    if (!m_isCompressed)
        doubtShared();
}

__int64 SalvagedTables::countAbsent(__int64 grain, __int64 maxGrains) const {
    assert(grain >= 0 && maxGrains >= 0 && grain <= m_grainCount - maxGrains);
    auto const isAbsent = [this](__int64 index) {
        return getState(index) == State::Known && getSector(index) == 0;
    };
    __int64 count = 0;
    while (count < maxGrains && isAbsent(grain + count))
        ++count;
    return count;
}

void SalvagedTables::takeDirectories(CVMDKSparseExtentHeader const& header) {
    m_main.directorySector = static_cast<__int64>(header.getGrainDirectoryOffsetSectors());
    m_copies.directorySector =
        static_cast<__int64>(header.getRedundantGrainDirectoryOffsetSectors());
    std::vector<TableSet*> sets;
    for (TableSet* const each : {&m_main, &m_copies}) {
        each->tables.resize(static_cast<std::size_t>(m_tableCount), -1);
        if (each->directorySector != 0) {
            findTables(*each);
            sets.push_back(each);
        }
    }
    __int64 regular = 0;
    __int64 possible = 0;
    for (TableSet const* const each : sets) {
        regular += countRegular(*each);
        possible += std::count_if(each->tables.begin(), each->tables.end(),
                                  [this](__int64 table) { return isPossibleTable(table); });
    }
    auto const all = static_cast<__int64>(sets.size()) * m_tableCount;
    bool const areRegular = regular * 2 >= all || possible * 2 < all;
    for (TableSet* const each : sets) {
        for (__int64 table = 0; table < m_tableCount; ++table) {
            __int64& sector = each->tables[static_cast<std::size_t>(table)];
            if (areRegular)
                sector = regularTable(*each, table);
            if (!isPossibleTable(sector))
                sector = -1;
        }
    }
}

void SalvagedTables::findTables(TableSet& set) {
    ReadableSectors const directory = readReadableSectors(
        m_stream, set.directorySector, getVMDKDirectorySizeSectors(m_tableCount));
    for (__int64 table = 0; table < m_tableCount; ++table) {
        if (directory.isReadable[static_cast<std::size_t>(table / kEntriesInSector)]) {
            set.tables[static_cast<std::size_t>(table)] = loadLittleEndian<unsigned int>(
                directory.bytes.data() + table * kDirectoryEntrySizeBytes);
        }
    }
}

__int64 SalvagedTables::regularTable(TableSet const& set, __int64 table) const {
    __int64 const markerSectors = m_isCompressed ? 1 : 0;
    return set.directorySector + getVMDKDirectorySizeSectors(m_tableCount) + markerSectors +
           table * (kGrainTableSizeSectors + markerSectors);
}

__int64 SalvagedTables::countRegular(TableSet const& set) const {
    __int64 count = 0;
    for (__int64 table = 0; table < m_tableCount; ++table)
        count += set.tables[static_cast<std::size_t>(table)] == regularTable(set, table);
    return count;
}

bool SalvagedTables::isPossibleTable(__int64 sector) const {
    return sector > 0 && sector * kSectorSizeBytes < m_stream.getLength();
}

void SalvagedTables::readTable(__int64 table) {
    __int64 const mainSector = m_main.tables[static_cast<std::size_t>(table)];
    __int64 const copySector = m_copies.tables[static_cast<std::size_t>(table)];
    for (int part = 0; part < kGrainTableSizeSectors; ++part) {
        readEntries(table * kGrainTableEntryCount + __int64{part} * kEntriesInSector,
                    mainSector < 0 ? -1 : mainSector + part,
                    copySector < 0 ? -1 : copySector + part);
    }
}

SalvagedTables::Entries SalvagedTables::readEntriesAt(__int64 sector) {
    Entries entries;
    unsigned char bytes[kSectorSizeBytes];
    entries.count = readSectorToEnd(m_stream, sector, bytes) / kDirectoryEntrySizeBytes;
    for (int i = 0; i < entries.count; ++i) {
        entries.sectors[i] =
            loadLittleEndian<unsigned int>(bytes + std::ptrdiff_t{i} * kDirectoryEntrySizeBytes);
    }
    return entries;
}

bool SalvagedTables::isImpossible(__int64 sector) const {
    __int64 const mostSectors =
        m_overheadSectors + m_grainCount * m_grainSizeSectors * kMostSectorsForEach;
    return sector != 0 && (sector < m_overheadSectors || sector > mostSectors);
}

/// Whether a sector of a table that differs from the other one has been overwritten.
bool SalvagedTables::isRubbish(Entries const& entries, Entries const& other) const {
    for (int i = 0; i < std::min(entries.count, other.count); ++i) {
        if (entries.sectors[i] != other.sectors[i] && isImpossible(entries.sectors[i]))
            return true;
    }
    return false;
}

void SalvagedTables::set(__int64 grain, __int64 sector, State state) {
    m_sectors[static_cast<std::size_t>(grain)] = static_cast<unsigned int>(sector);
    m_states[static_cast<std::size_t>(grain)] = state;
}

void SalvagedTables::readEntries(__int64 firstGrain, __int64 mainSector, __int64 copySector) {
    Entries const main = readEntriesAt(mainSector);
    Entries const copy = readEntriesAt(copySector);
    bool const isMainRubbish = isRubbish(main, copy);
    bool const isCopyRubbish = isRubbish(copy, main);
    __int64 const count =
        std::min<__int64>(std::max(main.count, copy.count), m_grainCount - firstGrain);
    for (__int64 i = 0; i < count; ++i) {
        bool const areBoth = i < main.count && i < copy.count;
        if (!areBoth || main.sectors[i] == copy.sectors[i]) {
            set(firstGrain + i, i < main.count ? main.sectors[i] : copy.sectors[i], State::Known);
            continue;
        }
        bool const isRubbishAlone = main.sectors[i] == 0 ? isCopyRubbish : isMainRubbish;
        m_disputes.push_back({firstGrain + i, main.sectors[i], copy.sectors[i],
                              !isMainRubbish || isCopyRubbish, !isCopyRubbish || isMainRubbish,
                              isRubbishAlone ? State::Known : State::Doubtful});
    }
}

void SalvagedTables::settleDisputes() {
    if (!m_isCompressed && !m_disputes.empty()) {
        std::copy_if(m_sectors.begin(), m_sectors.end(), std::back_inserter(m_taken),
                     [](unsigned int sector) { return sector != 0; });
        std::sort(m_taken.begin(), m_taken.end());
    }
    for (Dispute const& dispute : m_disputes) {
        if (m_cancel)
            m_cancel->check();
        settle(dispute);
    }
    m_disputes.clear();
    m_taken.clear();
}

void SalvagedTables::settle(Dispute const& dispute) {
    bool const isMainProven =
        (m_isCompressed || dispute.isMainATable) && isProven(dispute.grain, dispute.main);
    // A record of the grain at both places is what a power cut leaves; the main table is newer.
    bool const isCopyProven = m_isCompressed
                                  ? !isMainProven && isProven(dispute.grain, dispute.copy)
                                  : dispute.isCopyATable && isProven(dispute.grain, dispute.copy);
    if (isMainProven)
        set(dispute.grain, dispute.main, isCopyProven ? State::Doubtful : State::Known);
    else if (isCopyProven)
        set(dispute.grain, dispute.copy, State::Known);
    else if (dispute.main == 0 || dispute.copy == 0)
        set(dispute.grain, 0, dispute.stateOfNone);
    else
        set(dispute.grain, 0, State::Lost);
}

bool SalvagedTables::isProven(__int64 grain, __int64 sector) {
    if (sector == 0 || sector < m_overheadSectors)
        return false;
    return m_isCompressed ? m_grains.isRecordOf(grain, sector) : isFree(sector);
}

/// Whether no undisputed grain lies where a plain one would.
bool SalvagedTables::isFree(__int64 sector) const {
    if (sector > m_fileSectors - m_grainSizeSectors)
        return false;
    auto const next =
        std::upper_bound(m_taken.begin(), m_taken.end(), static_cast<unsigned int>(sector));
    bool const reachesNext = next != m_taken.end() && *next < sector + m_grainSizeSectors;
    bool const isReached =
        next != m_taken.begin() && *std::prev(next) > sector - m_grainSizeSectors;
    return !reachesNext && !isReached;
}

void SalvagedTables::doubtShared() {
    std::vector<unsigned int> grains;
    for (std::size_t grain = 0; grain < m_sectors.size(); ++grain) {
        if (m_sectors[grain] != 0)
            grains.push_back(static_cast<unsigned int>(grain));
    }
    std::sort(grains.begin(), grains.end(), [this](unsigned int left, unsigned int right) {
        return m_sectors[left] < m_sectors[right];
    });
    for (std::size_t i = 1; i < grains.size(); ++i) {
        if (m_sectors[grains[i]] - m_sectors[grains[i - 1]] < m_grainSizeSectors) {
            m_states[grains[i]] = State::Doubtful;
            m_states[grains[i - 1]] = State::Doubtful;
        }
    }
}

} // namespace kelm::host

#include "host/disk/table_comparison.h"

#include <algorithm>
#include <map>
#include <optional>
#include <set>
#include <vector>

#include "host/disk/sector_map.h"
#include "kelm/format/constants.h"
#include "kelm/format/internal/little_endian.h"
#include "kelm/format/marker.h"
#include "kelm/format/sparse_extent_header.h"
#include "kelm/graindata/data_preparer.h"
#include "kelm/graindata/internal/grain_record.h"

namespace kelm::host {

namespace {

/// Directory entries and tables that are read in one go: 64 KiB of tables.
constexpr __int64 kTablesAtOnce = 32;

/// How much of a file is looked at for overlaps in one go: 128 GiB, for 32 MiB of memory.
constexpr __int64 kOverlapStretchSectors = 1LL << 28;

using TableBytes = std::vector<unsigned char>;

/// Of a directory or a table.
__int64 loadEntry(unsigned char const* entries, __int64 index) {
    return loadLittleEndian<unsigned int>(entries + index * kDirectoryEntrySizeBytes);
}

/// One of the two sets of tables of an extent, read in its order.
class TableSet {
public:
    TableSet(yx::IIOStream& stream, __int64 directorySector, __int64 tableCount)
        : m_stream(stream),
          m_fileBytes(stream.getLength()),
          m_directoryBytes(directorySector * kSectorSizeBytes),
          m_tableCount(tableCount) {}

    /// The entries of a table; null if it does not lie in the file. Valid until the next call.
    unsigned char const* read(__int64 tableIndex) {
        if (tableIndex < m_firstIndex || tableIndex >= m_firstIndex + m_loadedCount)
            load(tableIndex);
        if (m_loadedCount == 0)
            return nullptr;
        return m_tables.data() + (tableIndex - m_firstIndex) * kGrainTableSizeBytes;
    }

    /// Where the table lies that `read` has returned.
    __int64 positionBytesOf(__int64 tableIndex) const {
        return m_startBytes + (tableIndex - m_firstIndex) * kGrainTableSizeBytes;
    }

    __int64 getDirectoryEndBytes() const {
        return m_directoryBytes + m_tableCount * kDirectoryEntrySizeBytes;
    }

private:
    bool isInFile(__int64 positionBytes, __int64 bytes) const {
        return positionBytes > 0 && positionBytes <= m_fileBytes &&
               bytes <= m_fileBytes - positionBytes;
    }

    void readAt(__int64 positionBytes, __int64 bytes, TableBytes& target) {
        target.resize(static_cast<std::size_t>(bytes));
        m_stream.seek(positionBytes);
        m_stream.read(target.data(), static_cast<int>(bytes));
    }

    /// Loads a table and those behind it that also lie behind it in the file. None, if it is not
    /// there.
    void load(__int64 tableIndex) {
        m_firstIndex = tableIndex;
        m_loadedCount = 0;
        __int64 const count = std::min(kTablesAtOnce, m_tableCount - tableIndex);
        __int64 const entryBytes = m_directoryBytes + tableIndex * kDirectoryEntrySizeBytes;
        if (!isInFile(entryBytes, count * kDirectoryEntrySizeBytes))
            return;
        TableBytes places;
        readAt(entryBytes, count * kDirectoryEntrySizeBytes, places);
        m_startBytes = loadEntry(places.data(), 0) * kSectorSizeBytes;
        __int64 adjacent = 0;
        while (adjacent < count &&
               loadEntry(places.data(), adjacent) * kSectorSizeBytes ==
                   m_startBytes + adjacent * kGrainTableSizeBytes &&
               isInFile(m_startBytes, (adjacent + 1) * kGrainTableSizeBytes))
            ++adjacent;
        if (adjacent == 0)
            return;
        readAt(m_startBytes, adjacent * kGrainTableSizeBytes, m_tables);
        m_loadedCount = adjacent;
    }

    yx::IIOStream& m_stream;
    __int64 m_fileBytes;
    __int64 m_directoryBytes;
    __int64 m_tableCount;
    __int64 m_firstIndex = 0;
    __int64 m_loadedCount = 0;

    /// Of the first one that is loaded.
    __int64 m_startBytes = 0;
    TableBytes m_tables;
};

class TableComparison {
public:
    TableComparison(yx::IIOStream& stream, __int64 startGrainIndex, CancelFlag const* cancel)
        : m_stream(stream), m_startGrainIndex(startGrainIndex), m_cancel(cancel) {}

    void run(std::function<void(DamagedTable const&)> const& report) {
        if (!readHeader())
            return;
        for (__int64 table = 0; table < m_tableCount; ++table) {
            checkCancel();
            compareTable(table);
        }
        if (!m_laggingTables.empty())
            findOverlaps();
        for (auto const& [table, text] : m_damaged) {
            __int64 const startSectors = table * kGrainTableEntryCount * m_grainSizeSectors;
            report({table, startSectors,
                    std::min(kGrainTableEntryCount * m_grainSizeSectors,
                             m_capacitySectors - startSectors),
                    text});
        }
    }

    __int64 renewCopies() {
        if (!readHeader())
            return 0;
        __int64 count = 0;
        for (__int64 table = 0; table < m_tableCount; ++table) {
            checkCancel();
            unsigned char const* const main = m_main->read(table);
            unsigned char const* const copy = m_copies->read(table);
            if (!main || !copy || std::equal(main, main + kGrainTableSizeBytes, copy))
                continue;
            m_stream.seek(m_copies->positionBytesOf(table));
            m_stream.write(main, kGrainTableSizeBytes, nullptr);
            ++count;
        }
        if (count > 0)
            m_stream.flush();
        return count;
    }

    __int64 findEnd() {
        if (!readHeader())
            return 0;
        __int64 endBytes =
            std::max(m_main->getDirectoryEndBytes(), m_copies->getDirectoryEndBytes());
        for (TableSet* const set : {&*m_main, &*m_copies}) {
            for (__int64 table = 0; table < m_tableCount; ++table) {
                if (!set->read(table))
                    return 0;
                endBytes = std::max(endBytes, set->positionBytesOf(table) + kGrainTableSizeBytes);
            }
        }
        return (endBytes + kSectorSizeBytes - 1) / kSectorSizeBytes;
    }

private:
    void checkCancel() const {
        if (m_cancel)
            m_cancel->check();
    }

    /// Whether there are two sets of tables to compare.
    bool readHeader() {
        m_stream.seek(0);
        yx::CDataInStream in(&m_stream);
        m_header.load(in);
        auto const grainSize = m_header.getGrainSizeSectors();
        auto const fileSectors =
            static_cast<unsigned long long>(m_stream.getLength() / kSectorSizeBytes);
        bool const isPossible =
            grainSize > 0 && grainSize <= CVMDKDataPreparer::kMaxGrainSizeSectors &&
            m_header.getGrainTableEntryCount() == kGrainTableEntryCount &&
            m_header.getCapacitySectors() <= static_cast<unsigned long long>(kMaxPositionSectors) &&
            m_header.getGrainDirectoryOffsetSectors() <= fileSectors;
        auto const redundant = m_header.getRedundantGrainDirectoryOffsetSectors();
        if (!isPossible || redundant == 0)
            return false;
        m_grainSizeSectors = static_cast<__int64>(grainSize);
        m_capacitySectors = static_cast<__int64>(m_header.getCapacitySectors());
        m_isCompressed = m_header.isCompressed();
        __int64 const grainCount =
            (m_capacitySectors + m_grainSizeSectors - 1) / m_grainSizeSectors;
        m_tableCount = getVMDKTableCount(grainCount);
        if (m_tableCount > m_stream.getLength() / kGrainTableSizeBytes)
            return false;
        m_main.emplace(m_stream, static_cast<__int64>(m_header.getGrainDirectoryOffsetSectors()),
                       m_tableCount);
        m_copies.emplace(m_stream, static_cast<__int64>(std::min(redundant, fileSectors)),
                         m_tableCount);
        return true;
    }

    /// The first thing that is wrong with a table is the one that counts.
    void addDamage(__int64 table, char const* text) { m_damaged.emplace(table, text); }

    void compareTable(__int64 table) {
        unsigned char const* const copy = m_copies->read(table);
        unsigned char const* const main = m_main->read(table);
        if (!main || !copy) {
            addDamage(table, main ? "has a redundant copy that lies outside the file"
                                  : "lies outside the file");
        } else if (!std::equal(main, main + kGrainTableSizeBytes, copy)) {
            for (int entry = 0; entry < kGrainTableEntryCount; ++entry)
                compareEntry(table, entry, main, copy);
        }
    }

    void compareEntry(__int64 table, int entry, unsigned char const* main,
                      unsigned char const* copy) {
        __int64 const position = loadEntry(main, entry);
        __int64 const copied = loadEntry(copy, entry);
        if (position == copied)
            return;
        bool const mayLag =
            position != 0 &&
            (m_isCompressed ? holdsRecordOf(table * kGrainTableEntryCount + entry, position)
                            : copied == 0 && isInFile(position));
        if (!mayLag)
            addDamage(table, kDiffersText);
        else if (!m_isCompressed)
            m_laggingTables.insert(table);
    }

    bool isInFile(__int64 positionSectors) const {
        return positionSectors >= static_cast<__int64>(m_header.getOverheadSectors()) &&
               positionSectors * kSectorSizeBytes < m_stream.getLength();
    }

    bool holdsRecordOf(__int64 extentGrainIndex, __int64 positionSectors) const {
        unsigned char record[kGrainRecordHeaderSizeBytes];
        m_stream.seek(positionSectors * kSectorSizeBytes);
        if (m_stream.readLax(record, kGrainRecordHeaderSizeBytes) < kGrainRecordHeaderSizeBytes)
            return false;
        auto const diskGrainIndex =
            static_cast<unsigned long long>(extentGrainIndex + m_startGrainIndex);
        return loadGrainRecordLBA(record) ==
               diskGrainIndex * static_cast<unsigned long long>(m_grainSizeSectors);
    }

    /// Reports the tables that name, where their copies do not, the place of another grain.
    void findOverlaps() {
        __int64 const fileSectors = m_stream.getLength() / kSectorSizeBytes + 1;
        for (__int64 start = 0; start < fileSectors; start += kOverlapStretchSectors) {
            SectorMap taken(start, std::min(kOverlapStretchSectors, fileSectors - start));
            visitEntries([&](__int64, __int64 position, bool isLagging) {
                if (!isLagging)
                    taken.take(position, m_grainSizeSectors);
            });
            visitEntries([&](__int64 table, __int64 position, bool isLagging) {
                if (isLagging && taken.take(position, m_grainSizeSectors) != -1)
                    addDamage(table, kDiffersText);
            });
        }
    }

    /// Calls `visit` with the table and the place of every grain, and whether only the table has
    /// it.
    template <class Visit>
    void visitEntries(Visit const& visit) {
        for (__int64 table = 0; table < m_tableCount; ++table) {
            checkCancel();
            unsigned char const* const main = m_main->read(table);
            if (!main)
                continue;
            unsigned char const* const copy =
                m_laggingTables.contains(table) ? m_copies->read(table) : nullptr;
            for (int entry = 0; entry < kGrainTableEntryCount; ++entry) {
                __int64 const position = loadEntry(main, entry);
                if (position != 0) {
                    visit(table, position, copy && loadEntry(copy, entry) == 0);
                }
            }
        }
    }

    static constexpr char kDiffersText[] = "differs from its redundant copy";

    yx::IIOStream& m_stream;
    __int64 m_startGrainIndex;
    CancelFlag const* m_cancel;
    CVMDKSparseExtentHeader m_header;
    __int64 m_grainSizeSectors = 0;
    __int64 m_capacitySectors = 0;
    __int64 m_tableCount = 0;
    bool m_isCompressed = false;
    std::optional<TableSet> m_main;
    std::optional<TableSet> m_copies;

    /// Tables of a plain extent whose copies lack some of their grains.
    std::set<__int64> m_laggingTables;
    std::map<__int64, char const*> m_damaged;
};

} // namespace

void compareRedundantTables(yx::IIOStream& stream, __int64 startGrainIndex,
                            CancelFlag const* cancel,
                            std::function<void(DamagedTable const&)> const& report) {
    TableComparison(stream, startGrainIndex, cancel).run(report);
}

__int64 renewRedundantTables(yx::IIOStream& stream, CancelFlag const* cancel) {
    return TableComparison(stream, 0, cancel).renewCopies();
}

__int64 findTablesEnd(yx::IIOStream& stream) {
    return TableComparison(stream, 0, nullptr).findEnd();
}

} // namespace kelm::host

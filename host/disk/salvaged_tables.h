#pragma once

#include <vector>

#include "host/disk/stored_grains.h"
#include "host/system/cancel.h"

namespace kelm::host {

/// Where the grains of an extent file lie, as far as its two sets of tables tell, however damaged
/// they are.
///
/// The library reads the main tables alone, in runs of 32, and fails for a whole run if one sector
/// of it cannot be read; checks and copies refuse a disk whose tables differ. Here every entry is
/// judged by itself:
///
/// - The directories: where most of their entries stand at regular distances, as in every file that
///   the library has made (`RegularPlaces`), all others are taken for damaged and replaced.
/// - An entry that both tables have alike is believed. So is one whose other copy cannot be read.
/// - Where they differ, that one counts whose place proves it: in a compressed extent a record
///   there names the grain and decodes; in a plain one no other grain lies there, unless the entry
///   is in a sector that has impossible entries too, and the other one's has none. Both do after a
///   power cut, which leaves the copy behind the main table, so the main table comes first.
/// - Where they differ and neither is proven, the grain is lost. If one of them says that the grain
///   has no place, it counts as one without, but as doubtful, unless the other is in a sector that
///   has impossible entries too and is therefore nothing but damage.
/// - Plain grains whose entries name one place are doubtful: one of them is wrong, and nothing
///   tells which.
///
/// Takes 5 bytes for each grain of the extent, 80 KiB for each GiB, and as much again in between in
/// a plain extent.
class SalvagedTables {
public:
    /// What is known of a grain.
    enum class State : unsigned char {
        Known,    ///< its place, or that it has none
        Doubtful, ///< the same, but it may be wrong
        Lost,     ///< nothing
    };

    /// Reads all tables. `header` is one that `findHeader` has found; `grains` are those of the
    /// same file. What cannot be read is no error. `cancel` may be null.
    SalvagedTables(yx::IIOStream& stream, CVMDKSparseExtentHeader const& header,
                   StoredGrains& grains, CancelFlag const* cancel);

    /// How many grains the extent has.
    __int64 getGrainCount() const { return m_grainCount; }

    /// What is known of a grain.
    State getState(__int64 grain) const { return m_states[static_cast<std::size_t>(grain)]; }

    /// The sector at which it lies; 0 for a grain without a place.
    __int64 getSector(__int64 grain) const { return m_sectors[static_cast<std::size_t>(grain)]; }

    /// How many grains from one on, at most so many, are known to have no place.
    __int64 countAbsent(__int64 grain, __int64 maxGrains) const;

    /// Where the tables lie, main and redundant, in sectors; -1 for one whose place is not known.
    std::vector<__int64> const& getTableSectors() const { return m_main.tables; }
    std::vector<__int64> const& getRedundantTableSectors() const { return m_copies.tables; }

private:
    /// A directory with its tables.
    struct TableSet {
        /// 0 for none.
        __int64 directorySector = 0;
        std::vector<__int64> tables;
    };

    /// The entries of a sector of a table.
    struct Entries;

    /// An entry that the tables do not agree on.
    struct Dispute {
        __int64 grain;
        __int64 main;
        __int64 copy;

        /// False for one in a sector that is nothing but damage, where the other one's is not.
        bool isMainATable;
        bool isCopyATable;

        /// What it is if neither proves to be right and one of them is 0.
        State stateOfNone;
    };

    void findTables(TableSet& set);
    void takeDirectories(CVMDKSparseExtentHeader const& header);
    __int64 countRegular(TableSet const& set) const;
    bool isPossibleTable(__int64 sector) const;
    __int64 regularTable(TableSet const& set, __int64 table) const;
    void readTable(__int64 table);
    void readEntries(__int64 firstGrain, __int64 mainSector, __int64 copySector);
    Entries readEntriesAt(__int64 sector);
    bool isImpossible(__int64 sector) const;
    bool isRubbish(Entries const& entries, Entries const& other) const;
    void set(__int64 grain, __int64 sector, State state);
    void settleDisputes();
    void settle(Dispute const& dispute);
    bool isProven(__int64 grain, __int64 sector);
    bool isFree(__int64 sector) const;
    void doubtShared();

    yx::IIOStream& m_stream;
    StoredGrains& m_grains;
    CancelFlag const* m_cancel;
    bool m_isCompressed;
    __int64 m_grainSizeSectors;
    __int64 m_overheadSectors;
    __int64 m_fileSectors;
    __int64 m_grainCount = 0;
    __int64 m_tableCount = 0;
    TableSet m_main;
    TableSet m_copies;
    std::vector<unsigned int> m_sectors;
    std::vector<State> m_states;
    std::vector<Dispute> m_disputes;

    /// The places of plain grains that nobody disputes, in order.
    std::vector<unsigned int> m_taken;
};

} // namespace kelm::host

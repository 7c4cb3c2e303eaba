#include "host/check/extent_check.h"

#include <algorithm>
#include <cstdint>
#include <limits>
#include <optional>
#include <vector>

#include "host/check/check_errors.h"
#include "host/disk/record_size.h"
#include "host/disk/sector_map.h"
#include "kelm/format/constants.h"
#include "kelm/format/internal/little_endian.h"
#include "kelm/format/marker.h"
#include "kelm/graindata/data_preparer.h"

namespace kelm::host {

namespace {

using Bytes = std::vector<unsigned char>;
using Report = std::function<void(std::string const&)>;

/// How much of a file is looked at for overlaps in one go: 128 GiB, for 32 MiB of memory.
constexpr __int64 kStretchSectors = 1LL << 28;

/// Tables name sectors in 32 bits.
constexpr __int64 kMaxReachSectors = 1LL << 32;

using DirectoryEntry = std::uint32_t;
using GrainTableEntry = std::uint32_t;
using SlotSizeEntry = std::uint16_t;

static_assert(sizeof(DirectoryEntry) == kDirectoryEntrySizeBytes &&
              sizeof(GrainTableEntry) * kGrainTableEntryCount == kGrainTableSizeBytes &&
              sizeof(SlotSizeEntry) * kGrainTableEntryCount == kSlotSizeTableSizeBytes);

template <class Entry>
__int64 entryAt(Bytes const& entries, __int64 index) {
    return loadLittleEndian<Entry>(entries.data() + index * __int64{sizeof(Entry)});
}

/// Where the tables of one run of grains are; -1 for one that is not known.
struct TablePlaces {
    __int64 table = -1;
    __int64 redundantTable = -1;
    __int64 slotSizeTable = -1;
};

/// What the tables of one run of grains hold; no slot sizes where no table has them.
struct Tables {
    Bytes entries;
    Bytes slotSizes;
};

class ExtentCheck {
public:
    ExtentCheck(yx::IIOStream& stream, ExtentPlace const& place, CancelFlag const* cancel,
                Report const& report)
        : m_stream(stream), m_place(place), m_cancel(cancel), m_report(report) {}

    void run() {
        if (!readHeader() || !checkHeader())
            return;
        m_tableCount = getVMDKTableCount(m_grainCount);
        if (m_tableCount > 0 && findDirectories())
            checkStretches();
        if (m_compressed)
            checkTrail();
    }

private:
    /// Reports what belongs to no stretch of the file, once.
    void find(std::string const& text) {
        if (m_isFirstStretch)
            m_report(text);
    }

    bool isInFile(__int64 sector, __int64 bytes) const {
        return sector > 0 && sector <= m_fileSectors &&
               bytes <= m_fileBytes - sector * kSectorSizeBytes;
    }

    /// Reads a stretch that is in the file. Nothing, with a finding, if that fails.
    std::optional<Bytes> readAt(__int64 sector, __int64 bytes, std::string const& name) {
        Bytes data(static_cast<std::size_t>(bytes));
        auto const failure = findingOf([&] {
            m_stream.seek(sector * kSectorSizeBytes);
            m_stream.read(data.data(), static_cast<int>(bytes));
        });
        if (!failure)
            return data;
        find(name + " cannot be read: " + *failure);
        return std::nullopt;
    }

    bool readHeader() {
        auto const failure = findingOf([this] {
            m_fileBytes = m_stream.getLength();
            m_fileSectors = m_fileBytes / kSectorSizeBytes;
            m_stream.seek(0);
            yx::CDataInStream in(&m_stream);
            m_header.load(in);
        });
        if (failure)
            find(*failure);
        return !failure;
    }

    bool checkHeader() {
        auto const capacity = m_header.getCapacitySectors();
        auto const grainSize = m_header.getGrainSizeSectors();
        constexpr unsigned long long kLimit = std::numeric_limits<__int64>::max() / 1024;
        if (grainSize == 0 || grainSize > CVMDKDataPreparer::kMaxGrainSizeSectors ||
            capacity > kLimit) {
            find("the header's sizes are not possible");
            return false;
        }
        if (m_header.getGrainTableEntryCount() != kGrainTableEntryCount) {
            find("the header's tables have " + std::to_string(m_header.getGrainTableEntryCount()) +
                 " entries, not " + std::to_string(kGrainTableEntryCount));
            return false;
        }
        m_grainSizeSectors = static_cast<__int64>(grainSize);
        m_grainCount =
            (static_cast<__int64>(capacity) + m_grainSizeSectors - 1) / m_grainSizeSectors;
        m_compressed = m_header.isCompressed();
        checkCompression();
        compareWithDisk();
        if (m_header.getUncleanShutdown())
            find("the header says that the disk was not closed");
        return true;
    }

    /// The library goes by the flags alone; other software may go by the field.
    void checkCompression() {
        unsigned short const algorithm = m_header.getCompressAlgorithm();
        if (algorithm != kCompressAlgorithmNone && algorithm != kCompressAlgorithmDeflate)
            find("the header names an unknown compression: " + std::to_string(algorithm));
        else if (m_compressed && algorithm == kCompressAlgorithmNone)
            find("the header names no compression, its flags say that grains are compressed");
        else if (!m_compressed && algorithm == kCompressAlgorithmDeflate)
            find("the header names the compression deflate, its flags say that grains are not "
                 "compressed");
    }

    void compareWithDisk() {
        auto const capacity = static_cast<__int64>(m_header.getCapacitySectors());
        if (capacity != m_place.sizeSectors) {
            find("the header has a capacity of " + std::to_string(capacity) +
                 " sectors, the descriptor says " + std::to_string(m_place.sizeSectors));
        }
        if (m_grainSizeSectors != m_place.grainSizeSectors) {
            find("the header has a grain size of " + std::to_string(m_grainSizeSectors) +
                 " sectors, the disk has one of " + std::to_string(m_place.grainSizeSectors));
        }
        if (m_compressed != m_place.compressed) {
            find(m_compressed ? "the extent is compressed, the disk is not"
                              : "the extent is not compressed, the disk is");
        }
    }

    /// Whether all directories can be read that there must be.
    bool findDirectories() {
        m_directorySector = m_header.getGrainDirectoryOffsetSectors();
        m_redundantDirectorySector = m_header.getRedundantGrainDirectoryOffsetSectors();
        if (m_tableCount > m_fileBytes / kGrainTableSizeBytes) {
            find("the file is too short for the tables of " + std::to_string(m_grainCount) +
                 " grains");
            return false;
        }
        if (!isDirectoryInFile(m_directorySector)) {
            find("the grain directory lies outside the file");
            return false;
        }
        if (m_redundantDirectorySector != 0 && !isDirectoryInFile(m_redundantDirectorySector)) {
            find("the redundant grain directory lies outside the file");
            m_redundantDirectorySector = 0;
        }
        if (m_compressed)
            findSlotSizeDirectory();
        return true;
    }

    bool isDirectoryInFile(unsigned long long sector) const {
        return sector <= static_cast<unsigned long long>(m_fileSectors) &&
               isInFile(static_cast<__int64>(sector), m_tableCount * kDirectoryEntrySizeBytes);
    }

    /// Behind the last table; disks of other makers have none.
    void findSlotSizeDirectory() {
        TablePlaces const last = readPlaces(m_tableCount - 1);
        __int64 const marker = std::max(last.table, last.redundantTable) + kGrainTableSizeSectors;
        if (!isInFile(marker, kSectorSizeBytes))
            return;
        std::optional<Bytes> const sector =
            readAt(marker, kSectorSizeBytes, "the marker of the slot size directory");
        if (!sector || !isVMDKMarker(sector->data(), VMDKMarkerYxSlotSizeDirectory, nullptr))
            return;
        if (isDirectoryInFile(static_cast<unsigned long long>(marker + 1)))
            m_slotSizeDirectorySector = static_cast<unsigned long long>(marker + 1);
        else
            find("the slot size directory lies outside the file");
    }

    /// The entry of a directory; -1 where there is no directory.
    __int64 readPlace(unsigned long long directorySector, __int64 table) {
        if (directorySector == 0)
            return -1;
        Bytes entry(kDirectoryEntrySizeBytes);
        m_stream.seek(static_cast<__int64>(directorySector) * kSectorSizeBytes +
                      table * kDirectoryEntrySizeBytes);
        m_stream.read(entry.data(), kDirectoryEntrySizeBytes);
        return entryAt<DirectoryEntry>(entry, 0);
    }

    TablePlaces readPlaces(__int64 table) {
        TablePlaces places;
        auto const failure = findingOf([&] {
            places.table = readPlace(m_directorySector, table);
            places.redundantTable = readPlace(m_redundantDirectorySector, table);
            places.slotSizeTable = readPlace(m_slotSizeDirectorySector, table);
        });
        if (failure)
            find("the directories cannot be read: " + *failure);
        return places;
    }

    void checkStretches() {
        __int64 const reachSectors = std::min(m_fileSectors, kMaxReachSectors);
        for (__int64 start = 0; start < reachSectors; start += kStretchSectors) {
            SectorMap taken(start, std::min(kStretchSectors, reachSectors - start));
            m_isFirstStretch = start == 0;
            for (__int64 table = 0; table < m_tableCount; ++table) {
                if (m_cancel)
                    m_cancel->check();
                checkTable(table, taken);
            }
        }
        m_isFirstStretch = true;
    }

    void checkTable(__int64 table, SectorMap& taken) {
        std::string const name = "grain table " + std::to_string(table);
        TablePlaces const places = readPlaces(table);
        if (!isInFile(places.table, kGrainTableSizeBytes)) {
            find(name + " lies outside the file");
            return;
        }
        // Its grains would be findings too, each of them twice.
        if (taken.take(places.table, kGrainTableSizeSectors) != -1) {
            m_report(name + " shares its place with something else");
            return;
        }
        std::optional<Bytes> entries = readAt(places.table, kGrainTableSizeBytes, name);
        if (!entries)
            return;
        Tables tables{std::move(*entries), {}};
        if (m_isFirstStretch && m_redundantDirectorySector != 0)
            checkRedundantTable(name, tables.entries, places);
        if (m_slotSizeDirectorySector != 0)
            tables.slotSizes = readSlotSizes(table, places);
        for (int entry = 0; entry < kGrainTableEntryCount; ++entry)
            checkEntry(table * kGrainTableEntryCount + entry, entry, tables, taken);
    }

    void checkRedundantTable(std::string const& name, Bytes const& entries,
                             TablePlaces const& places) {
        std::string const copyName = "the redundant copy of " + name;
        if (places.redundantTable == places.table) {
            find(name + " is its own redundant copy");
        } else if (!isInFile(places.redundantTable, kGrainTableSizeBytes)) {
            find(copyName + " lies outside the file");
        } else {
            std::optional<Bytes> const copy =
                readAt(places.redundantTable, kGrainTableSizeBytes, copyName);
            if (copy && *copy != entries)
                find(name + " differs from its redundant copy");
        }
    }

    Bytes readSlotSizes(__int64 table, TablePlaces const& places) {
        std::string const name = "slot size table " + std::to_string(table);
        if (!isInFile(places.slotSizeTable, kSlotSizeTableSizeBytes)) {
            find(name + " lies outside the file");
            return {};
        }
        return readAt(places.slotSizeTable, kSlotSizeTableSizeBytes, name).value_or(Bytes());
    }

    void checkEntry(__int64 grain, __int64 entry, Tables const& tables, SectorMap& taken) {
        __int64 const position = entryAt<GrainTableEntry>(tables.entries, entry);
        if (position == 0)
            return;
        std::string const name = "grain " + std::to_string(grain + m_place.startGrainIndex);
        if (grain >= m_grainCount) {
            find("the entry of " + name + " is set, which is behind the end");
            return;
        }
        if (position < static_cast<__int64>(std::min<unsigned long long>(
                           m_header.getOverheadSectors(), kMaxReachSectors))) {
            find(name + " lies in the metadata");
            return;
        }
        if (!isInFile(position, m_compressed ? kSectorSizeBytes : 1)) {
            find(name + " lies outside the file");
            return;
        }
        __int64 const size = checkSlot(name, grain, position, tables.slotSizes, entry);
        if (!isInFile(position, size * kSectorSizeBytes))
            find(name + " reaches behind the end of the file");
        __int64 const shared = taken.take(position, size);
        if (shared != -1)
            m_report(name + " shares its place with something else, at sector " +
                     std::to_string(shared));
        m_dataEndSectors = std::max(m_dataEndSectors, position + size);
    }

    /// Returns the size of the slot in sectors.
    __int64 checkSlot(std::string const& name, __int64 grain, __int64 position,
                      Bytes const& slotSizes, __int64 entry) {
        if (!m_compressed)
            return m_grainSizeSectors;
        if (slotSizes.empty())
            return checkRecord(name, grain, position);
        __int64 const slotSectors = entryAt<SlotSizeEntry>(slotSizes, entry);
        if (m_isFirstStretch && checkRecord(name, grain, position) > slotSectors)
            find("the record of " + name + " does not fit its slot");
        return slotSectors;
    }

    /// Returns how many sectors the record takes; 0 for one that cannot be read.
    __int64 checkRecord(std::string const& name, __int64 grain, __int64 position) {
        std::optional<Bytes> const record =
            readAt(position, kSectorSizeBytes, "the record of " + name);
        if (!record)
            return 0;
        // Without a sign, since the index of a bad descriptor may be anything.
        auto const lba = static_cast<unsigned long long>(grain + m_place.startGrainIndex) *
                         static_cast<unsigned long long>(m_grainSizeSectors);
        if (loadGrainRecordLBA(record->data()) != lba)
            find("the record of " + name + " names another grain");
        return recordSizeSectors(m_header, loadGrainRecordCompressedSize(record->data()));
    }

    void checkTrail() {
        __int64 const start = m_fileSectors - kTrailSectors;
        if (m_fileBytes % kSectorSizeBytes != 0 || !isInFile(start, 1)) {
            find("the file does not end in whole sectors");
            return;
        }
        if (start < m_dataEndSectors)
            find("the grains reach into the trail");
        std::optional<Bytes> const trail =
            readAt(start, __int64{kTrailSectors} * kSectorSizeBytes, "the trail");
        std::optional<Bytes> const header = readAt(0, kSectorSizeBytes, "the header");
        if (!trail || !header)
            return;
        unsigned char const* const footer = trail->data() + kSectorSizeBytes;
        if (!isVMDKMarker(trail->data(), VMDKMarkerFooter, nullptr))
            find("the trail has no footer marker");
        if (!std::equal(header->begin(), header->end(), footer))
            find("the footer is no copy of the header");
        if (!isVMDKMarker(footer + kSectorSizeBytes, VMDKMarkerEndOfStream, nullptr))
            find("the trail has no end-of-stream marker");
    }

    yx::IIOStream& m_stream;
    ExtentPlace m_place;
    CancelFlag const* m_cancel;
    Report const& m_report;
    CVMDKSparseExtentHeader m_header;
    __int64 m_fileBytes = 0;
    __int64 m_fileSectors = 0;
    __int64 m_grainSizeSectors = 0;
    __int64 m_grainCount = 0;
    __int64 m_tableCount = 0;
    bool m_compressed = false;

    /// 0 for a directory that is not there.
    unsigned long long m_directorySector = 0;
    unsigned long long m_redundantDirectorySector = 0;
    unsigned long long m_slotSizeDirectorySector = 0;

    bool m_isFirstStretch = true;
    __int64 m_dataEndSectors = 0;
};

} // namespace

void checkExtent(yx::IIOStream& stream, ExtentPlace const& place, CancelFlag const* cancel,
                 Report const& report) {
    ExtentCheck(stream, place, cancel, report).run();
}

} // namespace kelm::host

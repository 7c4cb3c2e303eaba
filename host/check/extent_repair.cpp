#include "host/check/extent_repair.h"

#include <algorithm>
#include <cassert>

#include "host/disk/readable_sectors.h"
#include "host/disk/record_size.h"
#include "host/disk/regular_places.h"
#include "host/disk/salvaged_tables.h"
#include "host/disk/stored_grains.h"
#include "host/system/size_text.h"
#include "kelm/format/internal/little_endian.h"
#include "kelm/format/internal/rounding.h"
#include "kelm/graindata/internal/grain_record.h"

namespace kelm::host {

namespace {

using SectorBytes = std::vector<unsigned char>;

constexpr int kSlotSizeBytes = 2;

SectorBytes makeMarker(VMDKMarkerID type, __int64 value) {
    yx::TBuffer<unsigned char> padding(kSectorSizeBytes, -1);
    yx::initMemory(padding.getData(), 0, kSectorSizeBytes);
    yx::TBuffer<unsigned char> bytes;
    yx::CBufferStream stream(&bytes, 2.0);
    yx::CDataOutStream out(&stream);
    writeVMDKMarker(out, type, value, padding);
    return {bytes.getData(), bytes.getData() + bytes.getUsed()};
}

class RepairPlan {
public:
    RepairPlan(yx::IIOStream& stream, RepairedExtent const& extent, CancelFlag const* cancel)
        : m_stream(stream), m_extent(extent), m_cancel(cancel) {}

    ExtentRepair run() {
        std::optional<CVMDKSparseExtentHeader> const header =
            findHeader(m_stream, m_extent.expected);
        if (!header || countTables(*header) > m_stream.getLength() / kGrainTableSizeBytes) {
            m_plan.left.emplace_back("the header is lost");
            return std::move(m_plan);
        }
        m_header = *header;
        m_record = makeHeaderRecord(*header);
        put(0, toSector(m_record), "the header");
        StoredGrains grains(m_stream, m_header, m_extent.startGrainIndex, m_extent.key);
        SalvagedTables const tables(m_stream, m_header, grains, m_cancel);
        mendDirectory(m_header.getGrainDirectoryOffsetSectors(), tables.getTableSectors(),
                      "the grain directory");
        mendDirectory(m_header.getRedundantGrainDirectoryOffsetSectors(),
                      tables.getRedundantTableSectors(), "the redundant grain directory");
        mendTables(tables, tables.getTableSectors(), "grain table ");
        mendTables(tables, tables.getRedundantTableSectors(), "the redundant copy of grain table ");
        sayWhatIsLost(tables);
        if (m_header.isCompressed()) {
            mendMarkers();
            mendSlots(tables, grains);
            mendTrail();
        }
        return std::move(m_plan);
    }

private:
    static SectorBytes toSector(std::string const& record) {
        return {record.begin(), record.end()};
    }

    /// The bytes of a sector as they will be so far; zeros if they cannot be read.
    SectorBytes get(__int64 sector, bool& isReadable) {
        auto const planned = m_plan.sectors.find(sector);
        isReadable = true;
        if (planned != m_plan.sectors.end())
            return planned->second;
        ReadableSectors const read = readReadableSectors(m_stream, sector, 1);
        isReadable = read.isReadable.front();
        return read.bytes;
    }

    /// Plans the bytes of a sector. Whether that changes anything; then `name` is mended.
    bool put(__int64 sector, SectorBytes const& bytes, std::string const& name) {
        bool isReadable = false;
        if (get(sector, isReadable) == bytes && isReadable)
            return false;
        m_plan.sectors[sector] = bytes;
        if (!name.empty() && (m_plan.mended.empty() || m_plan.mended.back() != name))
            m_plan.mended.push_back(name);
        return true;
    }

    void mendDirectory(unsigned long long directorySector, std::vector<__int64> const& tables,
                       std::string const& name) {
        if (directorySector == 0)
            return;
        constexpr std::size_t kEntries = kSectorSizeBytes / kDirectoryEntrySizeBytes;
        for (std::size_t first = 0; first < tables.size(); first += kEntries) {
            auto const sector =
                static_cast<__int64>(directorySector) + static_cast<__int64>(first / kEntries);
            bool isReadable = false;
            SectorBytes const bytes = get(sector, isReadable);
            std::size_t const end = std::min(first + kEntries, tables.size());
            bool const isKnown = std::none_of(tables.begin() + static_cast<std::ptrdiff_t>(first),
                                              tables.begin() + static_cast<std::ptrdiff_t>(end),
                                              [](__int64 table) { return table < 0; });
            if (!isKnown) {
                m_plan.left.push_back(name + " names tables that are not in the file");
                continue;
            }
            // What follows the entries in a sector that was overwritten is lost; it was zeros.
            SectorBytes wanted(kSectorSizeBytes);
            for (std::size_t i = first; i < end; ++i) {
                storeLittleEndian(wanted.data() + (i - first) * kDirectoryEntrySizeBytes,
                                  static_cast<unsigned int>(tables[i]));
            }
            auto const usedBytes =
                static_cast<std::ptrdiff_t>((end - first) * kDirectoryEntrySizeBytes);
            if (!std::equal(wanted.begin(), wanted.begin() + usedBytes, bytes.begin()) ||
                !isReadable)
                put(sector, wanted, name);
        }
    }

    void mendTables(SalvagedTables const& tables, std::vector<__int64> const& sectors,
                    std::string const& name) {
        constexpr __int64 kEntries = kSectorSizeBytes / kDirectoryEntrySizeBytes;
        __int64 const entryCount = countTables(m_header) * kGrainTableEntryCount;
        for (__int64 first = 0; first < entryCount; first += kEntries) {
            __int64 const table = first / kGrainTableEntryCount;
            __int64 const tableSector = sectors[static_cast<std::size_t>(table)];
            __int64 const sector = tableSector + first % kGrainTableEntryCount / kEntries;
            // A table behind the end of the file would not follow upon it.
            if (tableSector < 1 || sector >= m_stream.getLength() / kSectorSizeBytes)
                continue;
            bool isReadable = false;
            SectorBytes bytes = get(sector, isReadable);
            bool isKnown = true;
            for (__int64 i = first; i < first + kEntries; ++i) {
                bool const isGrain = i < tables.getGrainCount();
                if (isGrain && tables.getState(i) != SalvagedTables::State::Known) {
                    isKnown = false;
                    continue;
                }
                // Behind the last grain there is none with a place.
                auto const entry = static_cast<unsigned int>(isGrain ? tables.getSector(i) : 0);
                storeLittleEndian(bytes.data() + (i - first) * kDirectoryEntrySizeBytes, entry);
            }
            // What cannot be read in part cannot be kept in part.
            if (isKnown || isReadable)
                put(sector, bytes, name + std::to_string(table));
        }
    }

    bool isPlaceLost(SalvagedTables const& tables, __int64 grain) const {
        return tables.getState(grain) != SalvagedTables::State::Known ||
               tables.getSector(grain) * kSectorSizeBytes >= m_stream.getLength();
    }

    void sayWhatIsLost(SalvagedTables const& tables) {
        __int64 first = -1;
        for (__int64 grain = 0; grain <= tables.getGrainCount(); ++grain) {
            bool const isLost = grain < tables.getGrainCount() && isPlaceLost(tables, grain);
            if (isLost && first < 0)
                first = grain;
            if (!isLost && first >= 0) {
                m_plan.left.push_back("the places of the grains " +
                                      formatRange(first + m_extent.startGrainIndex,
                                                  grain + m_extent.startGrainIndex) +
                                      " are not known for sure, or lie outside the file");
                first = -1;
            }
        }
    }

    void putMarker(__int64 sector, VMDKMarkerID type, __int64 value, std::string const& name) {
        if (sector < m_stream.getLength() / kSectorSizeBytes)
            put(sector, makeMarker(type, value), "the marker of " + name);
    }

    void mendMarkers() {
        std::optional<RegularPlaces> const places =
            findRegularPlaces(m_header, m_stream.getLength());
        if (!places)
            return;
        __int64 const tableCount = countTables(m_header);
        __int64 const directorySectors = getVMDKDirectorySizeSectors(tableCount);
        putMarker(places->redundantDirectorySector - 1, VMDKMarkerGrainDirectory, directorySectors,
                  "the redundant grain directory");
        putMarker(places->directorySector - 1, VMDKMarkerGrainDirectory, directorySectors,
                  "the grain directory");
        putMarker(places->slotSizeDirectorySector - 1, VMDKMarkerYxSlotSizeDirectory,
                  directorySectors, "the slot size directory");
        std::vector<__int64> slotTables;
        for (__int64 table = 0; table < tableCount; ++table) {
            std::string const number = std::to_string(table);
            putMarker(places->redundantTableSector + table * places->strideSectors - 1,
                      VMDKMarkerGrainTable, kGrainTableSizeSectors,
                      "the redundant copy of grain table " + number);
            putMarker(places->tableSector + table * places->strideSectors - 1, VMDKMarkerGrainTable,
                      kGrainTableSizeSectors, "grain table " + number);
            slotTables.push_back(places->slotSizeTableSector +
                                 table * places->slotSizeStrideSectors);
            putMarker(slotTables.back() - 1, VMDKMarkerYxSlotSizeTable, kSlotSizeTableSizeSectors,
                      "slot size table " + number);
        }
        mendDirectory(static_cast<unsigned long long>(places->slotSizeDirectorySector), slotTables,
                      "the slot size directory");
    }

    void mendSlots(SalvagedTables const& tables, StoredGrains& grains) {
        std::optional<RegularPlaces> const places =
            findRegularPlaces(m_header, m_stream.getLength());
        if (!places)
            return;
        std::vector<__int64> starts;
        for (__int64 grain = 0; grain < tables.getGrainCount(); ++grain) {
            if (tables.getSector(grain) != 0)
                starts.push_back(tables.getSector(grain));
        }
        std::sort(starts.begin(), starts.end());
        for (__int64 grain = 0; grain < tables.getGrainCount(); ++grain) {
            if (m_cancel && grain % kGrainTableEntryCount == 0)
                m_cancel->check();
            if (tables.getSector(grain) != 0 &&
                tables.getState(grain) == SalvagedTables::State::Known)
                mendSlot(grain, tables.getSector(grain), *places, starts, grains);
        }
    }

    void mendSlot(__int64 grain, __int64 sector, RegularPlaces const& places,
                  std::vector<__int64> const& starts, StoredGrains& grains) {
        constexpr __int64 kSlots = kSectorSizeBytes / kSlotSizeBytes;
        __int64 const table = grain / kGrainTableEntryCount;
        __int64 const inTable = grain % kGrainTableEntryCount;
        __int64 const slotSector =
            places.slotSizeTableSector + table * places.slotSizeStrideSectors + inTable / kSlots;
        bool isReadable = false;
        SectorBytes bytes = get(slotSector, isReadable);
        unsigned char* const slot = bytes.data() + inTable % kSlots * kSlotSizeBytes;
        auto const present = static_cast<__int64>(loadLittleEndian<unsigned short>(slot));
        auto const next = std::upper_bound(starts.begin(), starts.end(), sector);
        __int64 const fileSectors = m_stream.getLength() / kSectorSizeBytes;
        __int64 const room =
            std::min((next == starts.end() ? fileSectors : *next) - sector, kMaxSlotSizeSectors);
        if (room < 1 || !grains.namesGrain(grain, sector))
            return;
        ReadableSectors const record = readReadableSectors(m_stream, sector, 1);
        __int64 const needed =
            recordSizeSectors(m_header, loadGrainRecordCompressedSize(record.bytes.data()));
        if ((isReadable && present >= needed && present <= room) || needed > room)
            return;
        storeLittleEndian(slot, static_cast<unsigned short>(needed));
        put(slotSector, bytes, "slot size table " + std::to_string(table));
    }

    void mendTrail() {
        __int64 const lengthBytes = m_stream.getLength();
        __int64 const start = lengthBytes / kSectorSizeBytes - kTrailSectors;
        std::vector<SectorBytes> const trail{makeMarker(VMDKMarkerFooter, 1), toSector(m_record),
                                             makeMarker(VMDKMarkerEndOfStream, 0)};
        int right = 0;
        for (int i = 0; i < kTrailSectors; ++i) {
            ReadableSectors const read = readReadableSectors(m_stream, start + i, 1);
            right += read.isReadable.front() && read.bytes == trail[static_cast<std::size_t>(i)];
        }
        // Two of three sectors are no accident; the third may be the damaged one.
        bool const isInPlace = lengthBytes % kSectorSizeBytes == 0 && right >= 2;
        __int64 at = start;
        if (!isInPlace) {
            at = roundUpToSectors(lengthBytes);
            padLastSector(lengthBytes);
        }
        for (int i = 0; i < kTrailSectors; ++i)
            put(at + i, trail[static_cast<std::size_t>(i)], "the trail");
    }

    /// So that what follows begins at a sector.
    void padLastSector(__int64 lengthBytes) {
        int const restBytes = static_cast<int>(lengthBytes % kSectorSizeBytes);
        if (restBytes == 0)
            return;
        SectorBytes bytes(kSectorSizeBytes);
        m_stream.seek(lengthBytes - restBytes);
        m_stream.read(bytes.data(), restBytes);
        m_plan.sectors[lengthBytes / kSectorSizeBytes] = bytes;
    }

    yx::IIOStream& m_stream;
    RepairedExtent const& m_extent;
    CancelFlag const* m_cancel;
    CVMDKSparseExtentHeader m_header;
    std::string m_record;
    ExtentRepair m_plan;
};

} // namespace

ExtentRepair planExtentRepair(yx::IIOStream& stream, RepairedExtent const& extent,
                              CancelFlag const* cancel) {
    return RepairPlan(stream, extent, cancel).run();
}

} // namespace kelm::host

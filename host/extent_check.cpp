#include "host/extent_check.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <vector>

#include "kelm/format/constants.h"
#include "kelm/format/marker.h"
#include "kelm/format/sparse_extent_header.h"
#include "kelm/graindata/grain_record.h"

namespace kelm::host {

namespace {

using Bytes = std::vector<unsigned char>;

constexpr __int64 kTrailSectors = 3;
constexpr __int64 kCipherBlockSizeBytes = 16;

/// The least-significant byte comes first.
__int64 numberAt(Bytes const& bytes, __int64 offset, int size) {
    unsigned long long value = 0;
    for (int i = size; i-- > 0;)
        value = value << 8 | bytes[static_cast<std::size_t>(offset + i)];
    return static_cast<__int64>(value);
}

class ExtentCheck {
public:
    ExtentCheck(yx::IIOStream& stream, ExtentPlace const& place, CancelFlag const* cancel,
                std::function<void(std::string const&)> const& report)
        : m_stream(stream), m_place(place), m_cancel(cancel), m_report(report) {}

    void run() {
        m_stream.seek(0);
        yx::CDataInStream in(&m_stream);
        m_header.load(in);
        m_fileSectors = m_stream.getLength() / kSectorSizeBytes;
        if (!checkHeader())
            return;
        m_compressed = (m_header.getFlags() & kFlagCompressed) != 0;
        m_tableCount = getVMDKTableCount(m_grainCount);
        checkTables();
        checkOverlaps();
        if (m_compressed)
            checkTrail();
    }

private:
    struct Slot {
        unsigned int startSectors;
        unsigned int sizeSectors;
    };

    /// The tables of one run of grains.
    struct Tables {
        Bytes entries;
        Bytes slotSizes;
    };

    bool isInFile(__int64 sector, __int64 bytes) const {
        return sector > 0 && sector <= m_fileSectors &&
               bytes <= m_stream.getLength() - sector * kSectorSizeBytes;
    }

    Bytes readAt(__int64 sector, __int64 bytes) {
        Bytes data(static_cast<std::size_t>(bytes));
        m_stream.seek(sector * kSectorSizeBytes);
        m_stream.read(data.data(), static_cast<int>(bytes));
        return data;
    }

    bool checkHeader() {
        auto const capacity = m_header.getCapacitySectors();
        auto const grainSize = m_header.getGrainSizeSectors();
        constexpr unsigned long long kLimit = std::numeric_limits<__int64>::max() / 1024;
        if (grainSize == 0 || grainSize > kLimit || capacity > kLimit) {
            m_report("the header's sizes are not possible");
            return false;
        }
        if (m_header.getGrainTableEntryCount() != kGrainTableEntryCount) {
            m_report("the header's tables have " +
                     std::to_string(m_header.getGrainTableEntryCount()) + " entries, not " +
                     std::to_string(kGrainTableEntryCount));
            return false;
        }
        m_grainSizeSectors = static_cast<__int64>(grainSize);
        m_grainCount =
            (static_cast<__int64>(capacity) + m_grainSizeSectors - 1) / m_grainSizeSectors;
        if (static_cast<__int64>(capacity) != m_place.sizeSectors) {
            m_report("the header has a capacity of " + std::to_string(capacity) +
                     " sectors, the descriptor says " + std::to_string(m_place.sizeSectors));
        }
        if (m_header.getUncleanShutdown())
            m_report("the header says that the disk was not closed");
        return true;
    }

    /// The directory at `sector`, empty with a finding if it is not in the file.
    Bytes readDirectory(unsigned long long sector, char const* what) {
        auto const start = static_cast<__int64>(std::min<unsigned long long>(
            sector, static_cast<unsigned long long>(m_fileSectors) + 1));
        __int64 const bytes = m_tableCount * kDirectoryEntrySizeBytes;
        if (bytes <= std::numeric_limits<int>::max() && isInFile(start, bytes))
            return readAt(start, bytes);
        m_report(std::string(what) + " lies outside the file");
        return {};
    }

    void checkTables() {
        if (m_tableCount == 0)
            return;
        Bytes const directory =
            readDirectory(m_header.getGrainDirectoryOffsetSectors(), "the grain directory");
        if (directory.empty())
            return;
        Bytes redundant;
        if (m_header.getRedundantGrainDirectoryOffsetSectors() != 0) {
            redundant = readDirectory(m_header.getRedundantGrainDirectoryOffsetSectors(),
                                      "the redundant grain directory");
        }
        Bytes const slotDirectory = m_compressed ? readSlotDirectory(directory) : Bytes();
        for (__int64 table = 0; table < m_tableCount; ++table) {
            if (m_cancel)
                m_cancel->check();
            checkTable(table, directory, redundant, slotDirectory);
        }
    }

    /// Behind the last table; disks of other makers have none.
    Bytes readSlotDirectory(Bytes const& directory) {
        __int64 const marker = tablePosition(directory, m_tableCount - 1) + kGrainTableSizeSectors;
        if (!isInFile(marker, kSectorSizeBytes))
            return {};
        Bytes const sector = readAt(marker, kSectorSizeBytes);
        if (!isVMDKMarker(sector.data(), VMDKMarkerYxSlotSizeDirectory, nullptr))
            return {};
        return readDirectory(static_cast<unsigned long long>(marker + 1),
                             "the slot size directory");
    }

    static __int64 tablePosition(Bytes const& directory, __int64 table) {
        return numberAt(directory, table * kDirectoryEntrySizeBytes, kDirectoryEntrySizeBytes);
    }

    void checkTable(__int64 table, Bytes const& directory, Bytes const& redundant,
                    Bytes const& slotDirectory) {
        std::string const name = "grain table " + std::to_string(table);
        __int64 const position = tablePosition(directory, table);
        if (!isInFile(position, kGrainTableSizeBytes)) {
            m_report(name + " lies outside the file");
            return;
        }
        Tables tables;
        tables.entries = readAt(position, kGrainTableSizeBytes);
        if (!redundant.empty())
            checkRedundantTable(name, tables.entries, position, tablePosition(redundant, table));
        if (!slotDirectory.empty()) {
            __int64 const slotTable = tablePosition(slotDirectory, table);
            if (isInFile(slotTable, kSlotSizeTableSizeBytes))
                tables.slotSizes = readAt(slotTable, kSlotSizeTableSizeBytes);
            else
                m_report("slot size table " + std::to_string(table) + " lies outside the file");
        }
        for (int entry = 0; entry < kGrainTableEntryCount; ++entry)
            checkEntry(table * kGrainTableEntryCount + entry, entry, tables);
    }

    void checkRedundantTable(std::string const& name, Bytes const& entries, __int64 position,
                             __int64 redundantPosition) {
        if (redundantPosition == position)
            m_report(name + " is its own redundant copy");
        else if (!isInFile(redundantPosition, kGrainTableSizeBytes))
            m_report("the redundant copy of " + name + " lies outside the file");
        else if (readAt(redundantPosition, kGrainTableSizeBytes) != entries)
            m_report(name + " differs from its redundant copy");
    }

    void checkEntry(__int64 grain, __int64 entry, Tables const& tables) {
        __int64 const position = numberAt(tables.entries, entry * 4, 4);
        if (position == 0)
            return;
        std::string const name = "grain " + std::to_string(grain + m_place.startGrainIndex);
        if (grain >= m_grainCount) {
            m_report("the entry of " + name + " is set, which is behind the end");
            return;
        }
        if (position < static_cast<__int64>(m_header.getOverheadSectors())) {
            m_report(name + " lies in the metadata");
            return;
        }
        if (!isInFile(position, m_compressed ? kSectorSizeBytes : 1)) {
            m_report(name + " lies outside the file");
            return;
        }
        __int64 size = m_grainSizeSectors;
        if (m_compressed)
            size = checkRecord(name, grain, position,
                               tables.slotSizes.empty() ? -1
                                                        : numberAt(tables.slotSizes, entry * 2, 2));
        if (!isInFile(position, size * kSectorSizeBytes))
            m_report(name + " reaches behind the end of the file");
        m_slots.push_back({static_cast<unsigned int>(position), static_cast<unsigned int>(size)});
    }

    /// Returns the size of the record's slot. `slotSectors` is -1 where no table has it.
    __int64 checkRecord(std::string const& name, __int64 grain, __int64 position,
                        __int64 slotSectors) {
        Bytes const record = readAt(position, kSectorSizeBytes);
        if (numberAt(record, kGrainRecordLBAOffset, 8) !=
            (grain + m_place.startGrainIndex) * m_grainSizeSectors)
            m_report("the record of " + name + " names another grain");
        __int64 const compressedBytes = numberAt(record, kGrainRecordCompressedSizeOffset, 4);
        __int64 storedBytes = compressedBytes;
        if (m_header.getEncryptionExtensionEnabled() &&
            m_header.getEncryptionAlgorithm() != kEncryptionAlgorithmNone)
            storedBytes = roundUpToMultiple(compressedBytes, kCipherBlockSizeBytes);
        __int64 const recordSectors = roundUpToSectors(kGrainRecordHeaderSizeBytes + storedBytes);
        if (slotSectors == -1)
            return recordSectors;
        if (recordSectors > slotSectors)
            m_report("the record of " + name + " does not fit its slot");
        return slotSectors;
    }

    void checkOverlaps() {
        std::sort(m_slots.begin(), m_slots.end(), [](Slot const& left, Slot const& right) {
            return left.startSectors < right.startSectors;
        });
        __int64 freeFrom = 0;
        for (Slot const& slot : m_slots) {
            if (slot.startSectors < freeFrom) {
                m_report("two grains share the place at sector " +
                         std::to_string(slot.startSectors));
            }
            freeFrom = std::max<__int64>(freeFrom, static_cast<__int64>(slot.startSectors) +
                                                       slot.sizeSectors);
        }
        m_dataEndSectors = freeFrom;
    }

    void checkTrail() {
        __int64 const start = m_fileSectors - kTrailSectors;
        if (m_stream.getLength() % kSectorSizeBytes != 0 || !isInFile(start, 1)) {
            m_report("the file does not end in whole sectors");
            return;
        }
        if (start < m_dataEndSectors)
            m_report("the grains reach into the trail");
        if (!isVMDKMarker(readAt(start, kSectorSizeBytes).data(), VMDKMarkerFooter, nullptr))
            m_report("the trail has no footer marker");
        if (readAt(start + 1, kSectorSizeBytes) != readFirstSector())
            m_report("the footer is no copy of the header");
        if (!isVMDKMarker(readAt(start + 2, kSectorSizeBytes).data(), VMDKMarkerEndOfStream,
                          nullptr))
            m_report("the trail has no end-of-stream marker");
    }

    Bytes readFirstSector() { return readAt(0, kSectorSizeBytes); }

    yx::IIOStream& m_stream;
    ExtentPlace const& m_place;
    CancelFlag const* m_cancel;
    std::function<void(std::string const&)> const& m_report;
    CVMDKSparseExtentHeader m_header;
    __int64 m_fileSectors = 0;
    __int64 m_grainSizeSectors = 0;
    __int64 m_grainCount = 0;
    __int64 m_tableCount = 0;
    __int64 m_dataEndSectors = 0;
    bool m_compressed = false;
    std::vector<Slot> m_slots;
};

} // namespace

void checkExtent(yx::IIOStream& stream, ExtentPlace const& place, CancelFlag const* cancel,
                 std::function<void(std::string const&)> const& report) {
    ExtentCheck(stream, place, cancel, report).run();
}

} // namespace kelm::host

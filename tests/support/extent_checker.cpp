#include "tests/support/extent_checker.h"

#include <algorithm>
#include <cstring>

namespace test_support {

namespace {

constexpr std::uint64_t kSector = 512;
constexpr std::uint64_t kTrailSectors = 3;
constexpr std::uint64_t kRecordHeadBytes = 12;
constexpr std::uint64_t kCipherBlockBytes = 16;

// The numbers of docs/file-format.md, stated again so that an error in the library's own shows.
constexpr std::uint64_t kMagic = 0x564D444B;
constexpr std::uint64_t kEncipheredMagic = 0x05644B45;
constexpr std::uint64_t kRedundantDirectoryFlag = 0x2;
constexpr std::uint64_t kCompressedFlag = 0x10000;
constexpr std::uint64_t kSlotSizeDirectoryMarker = 0x18349002;
constexpr unsigned char kFooterMarker = 3;

/// One walk over one file.
class Walk {
public:
    Walk(unsigned char const* data, std::uint64_t size, std::uint64_t startGrainIndex)
        : m_data(data), m_size(size), m_startGrainIndex(startGrainIndex) {}

    ExtentReport run() {
        if (!readHeader())
            return m_report;
        readTables();
        checkSlots();
        if (m_report.compressed)
            checkTrail();
        return m_report;
    }

private:
    void find(std::string const& finding) { m_report.findings.push_back(finding); }

    std::uint64_t number(std::uint64_t offset, int bytes) const {
        std::uint64_t value = 0;
        for (int i = bytes - 1; i >= 0; --i)
            value = value << 8 | m_data[offset + static_cast<std::uint64_t>(i)];
        return value;
    }

    bool inFile(std::uint64_t sector, std::uint64_t bytes) const {
        return sector <= m_size / kSector && bytes <= m_size - sector * kSector;
    }

    bool readHeader() {
        if (m_size < kSector) {
            find("the file has no room for a header");
            return false;
        }
        std::uint64_t const magic = number(0, 4);
        if (magic != kMagic && magic != kEncipheredMagic) {
            find("bad magic");
            return false;
        }
        std::uint64_t const flags = number(8, 4);
        m_report.enciphered = magic == kEncipheredMagic && number(79, 2) != 0;
        m_report.compressed = (flags & kCompressedFlag) != 0;
        m_report.capacitySectors = number(12, 8);
        m_report.grainSizeSectors = number(20, 8);
        m_entries = number(44, 4);
        m_redundantDirectory = (flags & kRedundantDirectoryFlag) != 0 ? number(48, 8) : 0;
        m_directory = number(56, 8);
        m_report.overheadSectors = number(64, 8);
        if (std::memcmp(m_data + 73, "\n \r\n", 4) != 0)
            find("bad new-line bytes");
        if (m_report.grainSizeSectors == 0 || m_entries == 0) {
            find("zero grain size or table size");
            return false;
        }
        m_grainCount =
            (m_report.capacitySectors + m_report.grainSizeSectors - 1) / m_report.grainSizeSectors;
        m_tableCount = (m_grainCount + m_entries - 1) / m_entries;
        return true;
    }

    void readTables() {
        std::uint64_t const directorySectors = (m_tableCount * 4 + kSector - 1) / kSector;
        if (!inFile(m_directory, m_tableCount * 4) ||
            !inFile(m_redundantDirectory, m_tableCount * 4)) {
            find("a directory lies outside the file");
            return;
        }
        std::uint64_t slotDirectory = 0;
        if (m_report.compressed && m_tableCount > 0) {
            // Behind the last table: the slot size directory's marker.
            std::uint64_t const lastTable =
                number(m_directory * kSector + (m_tableCount - 1) * 4, 4);
            std::uint64_t const marker = lastTable + (m_entries * 4 + kSector - 1) / kSector;
            if (!inFile(marker, kSector) ||
                number(marker * kSector + 12, 4) != kSlotSizeDirectoryMarker ||
                number(marker * kSector, 8) != directorySectors) {
                find("no slot size directory behind the last table");
                return;
            }
            slotDirectory = marker + 1;
            if (!inFile(slotDirectory, m_tableCount * 4)) {
                find("the slot size directory lies outside the file");
                return;
            }
        }
        for (std::uint64_t table = 0; table < m_tableCount; ++table)
            readTable(table, slotDirectory);
    }

    void readTable(std::uint64_t table, std::uint64_t slotDirectory) {
        std::uint64_t const position = number(m_directory * kSector + table * 4, 4);
        std::uint64_t const tableBytes = m_entries * 4;
        if (!inFile(position, tableBytes)) {
            find("table " + std::to_string(table) + " lies outside the file");
            return;
        }
        if (m_redundantDirectory != 0) {
            std::uint64_t const redundant = number(m_redundantDirectory * kSector + table * 4, 4);
            if (!inFile(redundant, tableBytes) ||
                std::memcmp(m_data + position * kSector, m_data + redundant * kSector,
                            static_cast<std::size_t>(tableBytes)) != 0)
                find("the redundant table " + std::to_string(table) + " differs");
            if (redundant == position)
                find("table " + std::to_string(table) + " is its own redundant copy");
        }
        std::uint64_t slotTable = 0;
        if (slotDirectory != 0) {
            slotTable = number(slotDirectory * kSector + table * 4, 4);
            if (!inFile(slotTable, m_entries * 2)) {
                find("slot size table " + std::to_string(table) + " lies outside the file");
                return;
            }
        }
        for (std::uint64_t entry = 0; entry < m_entries; ++entry) {
            std::uint64_t const grain = table * m_entries + entry;
            std::uint64_t const grainPosition = number(position * kSector + entry * 4, 4);
            if (grainPosition == 0)
                continue;
            if (grain >= m_grainCount) {
                find("an entry behind the last grain is set");
                continue;
            }
            std::uint64_t slotSize = m_report.grainSizeSectors;
            if (slotDirectory != 0)
                slotSize = number(slotTable * kSector + entry * 2, 2);
            m_report.grains[grain] = {grainPosition, slotSize};
        }
    }

    void checkSlots() {
        std::map<std::uint64_t, std::pair<std::uint64_t, std::uint64_t>> byPosition;
        std::uint64_t const end = m_report.compressed && m_size / kSector >= kTrailSectors
                                      ? m_size / kSector - kTrailSectors
                                      : (m_size + kSector - 1) / kSector;
        for (auto const& [grain, slot] : m_report.grains) {
            std::string const name = "grain " + std::to_string(grain);
            if (slot.posSectors < m_report.overheadSectors)
                find(name + " lies in the metadata");
            if (slot.sizeSectors == 0)
                find(name + " has an empty slot");
            if (slot.posSectors + slot.sizeSectors > end)
                find(name + " reaches behind the data");
            if (!byPosition.emplace(slot.posSectors, std::pair(slot.sizeSectors, grain)).second)
                find(name + " shares its place");
            if (m_report.compressed)
                checkRecord(grain, slot);
        }
        std::uint64_t freeFrom = 0;
        for (auto const& [position, slot] : byPosition) {
            if (position < freeFrom)
                find("grain " + std::to_string(slot.second) + " overlaps the one before it");
            freeFrom = std::max(freeFrom, position + slot.first);
        }
    }

    void checkRecord(std::uint64_t grain, ExtentReport::Slot const& slot) {
        if (!inFile(slot.posSectors, kRecordHeadBytes))
            return;
        std::string const name = "the record of grain " + std::to_string(grain);
        std::uint64_t const offset = slot.posSectors * kSector;
        if (number(offset, 8) != (grain + m_startGrainIndex) * m_report.grainSizeSectors)
            find(name + " names another grain");
        std::uint64_t bytes = number(offset + 8, 4);
        if (m_report.enciphered) {
            // What is enciphered is the record with its padding, behind the header.
            std::uint64_t const padded =
                (bytes + kRecordHeadBytes + kSector - 1) / kSector * kSector;
            bytes = (padded - kRecordHeadBytes + kCipherBlockBytes - 1) / kCipherBlockBytes *
                    kCipherBlockBytes;
        }
        if (bytes + kRecordHeadBytes > slot.sizeSectors * kSector)
            find(name + " does not fit its slot");
    }

    void checkTrail() {
        if (m_size % kSector != 0 || m_size < kTrailSectors * kSector) {
            find("the file does not end in whole sectors");
            return;
        }
        std::uint64_t const footerMarker = m_size - kTrailSectors * kSector;
        std::vector<unsigned char> marker(kSector, 0);
        marker[0] = 1;
        marker[12] = kFooterMarker;
        if (std::memcmp(m_data + footerMarker, marker.data(), kSector) != 0)
            find("no footer marker three sectors before the end");
        if (std::memcmp(m_data + footerMarker + kSector, m_data, kSector) != 0)
            find("the footer is no copy of the header");
        std::vector<unsigned char> const endMarker(kSector, 0);
        if (std::memcmp(m_data + footerMarker + 2 * kSector, endMarker.data(), kSector) != 0)
            find("no end-of-stream marker at the end");
    }

    unsigned char const* m_data;
    std::uint64_t m_size;
    std::uint64_t m_startGrainIndex;
    ExtentReport m_report;
    std::uint64_t m_entries = 0;
    std::uint64_t m_directory = 0;
    std::uint64_t m_redundantDirectory = 0;
    std::uint64_t m_grainCount = 0;
    std::uint64_t m_tableCount = 0;
};

} // namespace

std::string ExtentReport::text() const {
    std::string all;
    for (std::string const& finding : findings)
        all += finding + "\n";
    return all;
}

ExtentReport checkExtent(yx::TBuffer<unsigned char> const& file, std::uint64_t startGrainIndex) {
    return Walk(file.getData(), static_cast<std::uint64_t>(file.getUsed()), startGrainIndex).run();
}

} // namespace test_support

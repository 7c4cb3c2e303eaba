#include "host/content/partition_table.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <optional>
#include <string_view>
#include <utility>

#include "host/content/boot_sector.h"
#include "host/content/little_endian.h"

namespace kelm::host {

// The first sector (MBR):
//
//   offset  size
//      440     4  ID of the table
//      446  4*16  entries: flags (0 or 0x80), 3 bytes, type, 3 bytes, first sector, sectors
//      510     2  0x55 0xAA
//
// A sector of the chain of extended partitions has the same form: its first entry is a partition,
// by the sectors from here, and its second the next link, by the sectors from the first link.
//
// The header of a GPT, in the second sector, and in the last one:
//
//        0     8  "EFI PART"
//       12     4  size of the header
//       16     4  its CRC-32, taken while this is 0
//       24     8  its own sector
//       56    16  GUID of the disk
//       72     8  first sector of the entries
//       80     4  count of entries
//       84     4  size of an entry
//       88     4  CRC-32 of all entries
//
// An entry:
//
//        0    16  GUID of the type, zeros if there is no partition
//       16    16  GUID
//       32     8  first sector
//       40     8  last sector
//       56    72  label, UTF-16

namespace {

using Bytes = std::vector<unsigned char>;

constexpr int kSectorBytes = 512;
constexpr std::size_t kTableOffset = 446;
constexpr std::size_t kEntryBytes = 16;
constexpr int kEntriesOfSector = 4;
constexpr unsigned char kProtectiveType = 0xEE;

/// As many as Linux takes.
constexpr int kMaxPartitions = 256;

constexpr std::size_t kGuidBytes = 16;
constexpr std::size_t kMinHeaderBytes = 92;
constexpr std::size_t kMinGptEntryBytes = 128;
constexpr std::size_t kMaxGptEntryBytes = 4096;

/// Far more than the 16 KiB that everybody writes.
constexpr std::uint64_t kMaxEntriesBytes = std::uint64_t{1} << 20;

constexpr std::array<std::pair<std::string_view, std::string_view>, 12> kGptTypes{{
    {"c12a7328-f81f-11d2-ba4b-00a0c93ec93b", "EFI system"},
    {"21686148-6449-6e6f-744e-656564454649", "BIOS boot"},
    {"e3c9e316-0b5c-4db8-817d-f92df00215ae", "Microsoft reserved"},
    {"ebd0a0a2-b9e5-4433-87c0-68b6b72699c7", "Microsoft basic data"},
    {"de94bba4-06d1-4d40-a16a-bfd50179d6ac", "Windows recovery"},
    {"0fc63daf-8483-4772-8e79-3d69d8477de4", "Linux file system"},
    {"0657fd6d-a4ab-43c4-84e5-0933c84b4f4f", "Linux swap"},
    {"e6d6d379-f507-44c2-a23c-238f2a3df928", "Linux LVM"},
    {"a19d880f-05fc-4d3b-a006-743f0f84911e", "Linux RAID"},
    {"4f68bce3-e8cd-4db1-96e7-fbcaf984b709", "Linux root (x86-64)"},
    {"b921b045-1df0-41c3-af44-4c6f280d3fae", "Linux root (ARM64)"},
    {"933ac7e1-2eb4-4f13-b844-0e14e2aef915", "Linux home"},
}};

constexpr std::array<std::pair<unsigned char, std::string_view>, 15> kMbrTypes{{
    {0x01, "FAT12"},
    {0x04, "FAT16"},
    {0x05, "extended"},
    {0x06, "FAT16"},
    {0x07, "NTFS or exFAT"},
    {0x0B, "FAT32"},
    {0x0C, "FAT32"},
    {0x0E, "FAT16"},
    {0x0F, "extended"},
    {0x82, "Linux swap"},
    {0x83, "Linux"},
    {0x85, "Linux extended"},
    {0x8E, "Linux LVM"},
    {0xEF, "EFI system"},
    {0xFD, "Linux RAID"},
}};

bool isExtendedType(unsigned char type) {
    return type == 0x05 || type == 0x0F || type == 0x85;
}

std::uint32_t crc32Of(unsigned char const* data, std::size_t count) {
    constexpr std::uint32_t kPolynomial = 0xEDB88320;
    std::uint32_t crc = 0xFFFFFFFF;
    for (std::size_t i = 0; i < count; ++i) {
        crc ^= data[i];
        for (int bit = 0; bit < 8; ++bit)
            crc = (crc >> 1) ^ ((crc & 1) != 0 ? kPolynomial : 0);
    }
    return ~crc;
}

/// The first three groups have their lowest byte first.
std::string guidText(unsigned char const* guid) {
    constexpr std::array<int, kGuidBytes> kOrder{3, 2, 1,  0,  5,  4,  7,  6,
                                                 8, 9, 10, 11, 12, 13, 14, 15};
    std::string text;
    for (std::size_t i = 0; i < kGuidBytes; ++i) {
        char digits[3];
        std::snprintf(digits, sizeof digits, "%02x", guid[kOrder[i]]);
        if (i == 4 || i == 6 || i == 8 || i == 10)
            text += '-';
        text += digits;
    }
    return text;
}

void appendUTF8(std::string& text, std::uint32_t character) {
    auto const add = [&](std::uint32_t byte) { text += static_cast<char>(byte); };
    auto const addRest = [&](int shift) { add(0x80 | ((character >> shift) & 0x3F)); };
    if (character < 0x80) {
        add(character);
    } else if (character < 0x800) {
        add(0xC0 | (character >> 6));
        addRest(0);
    } else if (character < 0x10000) {
        add(0xE0 | (character >> 12));
        addRest(6);
        addRest(0);
    } else {
        add(0xF0 | (character >> 18));
        addRest(12);
        addRest(6);
        addRest(0);
    }
}

/// Up to the first zero. What is no character becomes U+FFFD.
std::string textOfUTF16(unsigned char const* data, std::size_t units) {
    std::string text;
    for (std::size_t i = 0; i < units; ++i) {
        std::uint32_t const unit = readLittleEndian<std::uint16_t>(data + 2 * i);
        if (unit == 0)
            break;
        std::uint32_t const next =
            i + 1 < units ? readLittleEndian<std::uint16_t>(data + 2 * i + 2) : 0;
        if (unit >= 0xD800 && unit < 0xDC00 && next >= 0xDC00 && next < 0xE000) {
            appendUTF8(text, 0x10000 + ((unit - 0xD800) << 10) + (next - 0xDC00));
            ++i;
        } else {
            appendUTF8(text, unit >= 0xD800 && unit < 0xE000 ? 0xFFFD : unit);
        }
    }
    return text;
}

Bytes readBytes(ByteSource& disk, __int64 positionBytes, std::size_t count) {
    Bytes bytes(count);
    disk.read(positionBytes, bytes.data(), static_cast<int>(count));
    return bytes;
}

struct MbrEntry {
    unsigned char flags;
    unsigned char type;
    std::uint64_t firstSector;
    std::uint64_t sectors;

    bool isThere() const { return type != 0 && sectors != 0; }
};

MbrEntry entryOf(Bytes const& sector, int index) {
    unsigned char const* const entry =
        sector.data() + kTableOffset + static_cast<std::size_t>(index) * kEntryBytes;
    return {entry[0], entry[4], readLittleEndian<std::uint32_t>(entry + 8),
            readLittleEndian<std::uint32_t>(entry + 12)};
}

bool hasSignature(Bytes const& sector) {
    return sector[510] == 0x55 && sector[511] == 0xAA;
}

/// The boot sector of a file system ends alike, and has other bytes where the entries would be.
bool isMbr(Bytes const& sector) {
    if (!hasSignature(sector) || isBootSectorOfFileSystem(sector.data()))
        return false;
    for (int i = 0; i < kEntriesOfSector; ++i) {
        if ((entryOf(sector, i).flags & 0x7F) != 0)
            return false;
    }
    return true;
}

bool isProtective(Bytes const& sector) {
    for (int i = 0; i < kEntriesOfSector; ++i) {
        if (entryOf(sector, i).type == kProtectiveType)
            return true;
    }
    return false;
}

/// Reads the table of one disk.
class TableReader {
public:
    explicit TableReader(ByteSource& disk) : m_disk(disk) {}

    PartitionTable read() {
        if (m_disk.getSizeBytes() < kSectorBytes)
            return m_table;
        Bytes const first = readBytes(m_disk, 0, kSectorBytes);
        if (!isMbr(first))
            return m_table;
        if (!isProtective(first) || !tryReadGPT())
            readMBR(first);
        return m_table;
    }

private:
    struct Header {
        __int64 sectorBytes;
        std::string guid;
        std::uint64_t entryCount;
        std::size_t entryBytes;
        Bytes entries;
    };

    bool tryReadGPT() {
        for (int const sectorBytes : {512, 4096}) {
            std::optional<Header> header = tryReadHeader(sectorBytes, 1);
            if (!header) {
                std::uint64_t const sectors =
                    static_cast<std::uint64_t>(m_disk.getSizeBytes() / sectorBytes);
                if (sectors < 2)
                    continue;
                header = tryReadHeader(sectorBytes, sectors - 1);
                if (header) {
                    m_table.problems.push_back("The first copy of the partition table is damaged; "
                                               "this is the second one.");
                }
            }
            if (header) {
                listGPT(*header);
                return true;
            }
        }
        m_table.problems.push_back("Both copies of the GPT are damaged or missing.");
        return false;
    }

    std::optional<Header> tryReadHeader(int sectorBytes, std::uint64_t atSector) {
        std::uint64_t const sectors = static_cast<std::uint64_t>(m_disk.getSizeBytes()) /
                                      static_cast<std::uint64_t>(sectorBytes);
        if (atSector >= sectors)
            return std::nullopt;
        Bytes header = readBytes(m_disk, static_cast<__int64>(atSector) * sectorBytes,
                                 static_cast<std::size_t>(sectorBytes));
        std::size_t const headerBytes = readLittleEndian<std::uint32_t>(&header[12]);
        std::uint32_t const crc = readLittleEndian<std::uint32_t>(&header[16]);
        std::fill_n(&header[16], 4, static_cast<unsigned char>(0));
        if (std::memcmp(header.data(), "EFI PART", 8) != 0 || headerBytes < kMinHeaderBytes ||
            headerBytes > header.size() || crc32Of(header.data(), headerBytes) != crc ||
            readLittleEndian<std::uint64_t>(&header[24]) != atSector)
            return std::nullopt;
        Header found{sectorBytes,
                     guidText(&header[56]),
                     readLittleEndian<std::uint32_t>(&header[80]),
                     readLittleEndian<std::uint32_t>(&header[84]),
                     {}};
        std::uint64_t const firstSector = readLittleEndian<std::uint64_t>(&header[72]);
        std::uint64_t const bytes = found.entryCount * found.entryBytes;
        if (found.entryBytes < kMinGptEntryBytes || found.entryBytes > kMaxGptEntryBytes ||
            bytes > kMaxEntriesBytes || firstSector >= sectors ||
            bytes > (sectors - firstSector) * static_cast<std::uint64_t>(sectorBytes))
            return std::nullopt;
        found.entries = readBytes(m_disk, static_cast<__int64>(firstSector) * sectorBytes,
                                  static_cast<std::size_t>(bytes));
        if (crc32Of(found.entries.data(), found.entries.size()) !=
            readLittleEndian<std::uint32_t>(&header[88]))
            return std::nullopt;
        return found;
    }

    void listGPT(Header const& header) {
        m_table.kind = PartitionTable::Kind::GPT;
        m_table.uuid = header.guid;
        m_table.sectorSizeBytes = static_cast<int>(header.sectorBytes);
        for (std::uint64_t i = 0; i < header.entryCount; ++i) {
            unsigned char const* const entry = &header.entries[i * header.entryBytes];
            if (std::all_of(entry, entry + kGuidBytes, [](unsigned char b) { return b == 0; }))
                continue;
            Partition partition;
            partition.number = static_cast<int>(i) + 1;
            partition.type = guidText(entry);
            for (auto const& [guid, name] : kGptTypes) {
                if (guid == partition.type)
                    partition.typeName = name;
            }
            partition.uuid = guidText(entry + kGuidBytes);
            partition.label = textOfUTF16(entry + 56, 36);
            std::uint64_t const first = readLittleEndian<std::uint64_t>(entry + 32);
            std::uint64_t const last = readLittleEndian<std::uint64_t>(entry + 40);
            add(partition, first, last < first ? 0 : last - first + 1);
        }
    }

    void readMBR(Bytes const& sector) {
        m_table.kind = PartitionTable::Kind::MBR;
        m_table.sectorSizeBytes = kSectorBytes;
        char id[9];
        std::snprintf(id, sizeof id, "%08x", readLittleEndian<std::uint32_t>(&sector[440]));
        m_table.uuid = id;
        for (int i = 0; i < kEntriesOfSector; ++i) {
            MbrEntry const entry = entryOf(sector, i);
            if (entry.isThere())
                addMBR(entry, i + 1, entry.firstSector);
        }
        int next = kEntriesOfSector + 1;
        for (int i = 0; i < kEntriesOfSector; ++i) {
            MbrEntry const entry = entryOf(sector, i);
            if (entry.isThere() && isExtendedType(entry.type))
                next = followChain(entry.firstSector, next);
        }
        // A disk without a partition and without an ID has only the boot code of something.
        if (m_table.partitions.empty() && m_table.problems.empty())
            m_table = PartitionTable();
    }

    /// Returns the number of the next partition.
    int followChain(std::uint64_t chainSector, int number) {
        std::uint64_t linkSector = chainSector;
        while (number <= kMaxPartitions) {
            if (!isOnDisk(linkSector, 1))
                return endChain(number);
            Bytes const sector =
                readBytes(m_disk, static_cast<__int64>(linkSector) * kSectorBytes, kSectorBytes);
            if (!hasSignature(sector))
                return endChain(number);
            std::uint64_t nextSector = 0;
            for (int i = 0; i < kEntriesOfSector; ++i) {
                MbrEntry const entry = entryOf(sector, i);
                if (!entry.isThere())
                    continue;
                if (!isExtendedType(entry.type))
                    addMBR(entry, number++, linkSector + entry.firstSector);
                else if (nextSector == 0)
                    nextSector = chainSector + entry.firstSector;
            }
            if (nextSector == 0)
                return number;
            // Links that go back may lead round and round.
            if (nextSector <= linkSector)
                return endChain(number);
            linkSector = nextSector;
        }
        return endChain(number);
    }

    int endChain(int number) {
        m_table.problems.push_back("The chain of extended partitions is damaged behind partition " +
                                   std::to_string(number - 1) + ".");
        return number;
    }

    void addMBR(MbrEntry const& entry, int number, std::uint64_t firstSector) {
        Partition partition;
        partition.number = number;
        char text[16];
        std::snprintf(text, sizeof text, "0x%02x", entry.type);
        partition.type = text;
        for (auto const& [type, name] : kMbrTypes) {
            if (type == entry.type)
                partition.typeName = name;
        }
        std::snprintf(text, sizeof text, "-%02x", static_cast<unsigned>(number));
        partition.uuid = m_table.uuid + text;
        partition.isExtended = isExtendedType(entry.type);
        add(partition, firstSector, entry.sectors);
    }

    bool isOnDisk(std::uint64_t firstSector, std::uint64_t count) const {
        int const sectorBytes =
            m_table.sectorSizeBytes != 0 ? m_table.sectorSizeBytes : kSectorBytes;
        std::uint64_t const sectors = static_cast<std::uint64_t>(m_disk.getSizeBytes()) /
                                      static_cast<std::uint64_t>(sectorBytes);
        return firstSector < sectors && count <= sectors - firstSector;
    }

    void add(Partition& partition, std::uint64_t firstSector, std::uint64_t count) {
        if (firstSector == 0 || count == 0 || !isOnDisk(firstSector, count)) {
            m_table.problems.push_back("Partition " + std::to_string(partition.number) +
                                       " is not within the disk.");
            return;
        }
        partition.startBytes = static_cast<__int64>(firstSector) * m_table.sectorSizeBytes;
        partition.sizeBytes = static_cast<__int64>(count) * m_table.sectorSizeBytes;
        m_table.partitions.push_back(partition);
    }

    ByteSource& m_disk;
    PartitionTable m_table;
};

} // namespace

Partition const* PartitionTable::find(int number) const {
    auto const found = std::find_if(partitions.begin(), partitions.end(),
                                    [&](Partition const& one) { return one.number == number; });
    return found == partitions.end() ? nullptr : &*found;
}

PartitionTable readPartitionTable(ByteSource& disk) {
    return TableReader(disk).read();
}

} // namespace kelm::host

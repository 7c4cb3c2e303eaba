// Partition tables of all forms, good and bad.

#include "host/content/partition_table.h"

#include <array>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <zlib.h>

#include "tests/host/content/bytes_in_memory.h"

namespace content_test {
namespace {

using kelm::host::Partition;
using kelm::host::PartitionTable;
using kelm::host::readPartitionTable;
using test_support::Bytes;

constexpr std::size_t kSector = 512;

void put(Bytes& bytes, std::size_t at, std::uint64_t value, std::size_t count) {
    for (std::size_t i = 0; i < count; ++i)
        bytes.at(at + i) = static_cast<unsigned char>(value >> (8 * i));
}

void putText(Bytes& bytes, std::size_t at, std::string const& text) {
    std::copy(text.begin(), text.end(), bytes.begin() + static_cast<std::ptrdiff_t>(at));
}

void sign(Bytes& disk, std::size_t sector) {
    put(disk, sector * kSector + 510, 0xAA55, 2);
}

/// An entry of the table in a sector.
void putEntry(Bytes& disk, std::size_t sector, std::size_t index, unsigned type,
              std::uint64_t first, std::uint64_t sectors) {
    std::size_t const at = sector * kSector + 446 + index * 16;
    put(disk, at + 4, type, 1);
    put(disk, at + 8, first, 4);
    put(disk, at + 12, sectors, 4);
    sign(disk, sector);
}

std::uint32_t crcOf(Bytes const& bytes, std::size_t at, std::size_t count) {
    return static_cast<std::uint32_t>(::crc32(0, bytes.data() + at, static_cast<unsigned>(count)));
}

constexpr std::size_t kEntryCount = 128;
constexpr std::size_t kEntryBytes = 128;

/// What a GPT begins with, in sectors of any size.
struct GPT {
    explicit GPT(std::size_t sectors, std::size_t sectorBytes = kSector)
        : sector(sectorBytes), disk(sectors * sectorBytes) {
        putEntry(disk, 0, 0, 0xEE, 1, sectors - 1);
    }

    std::size_t entriesSectors() const { return kEntryCount * kEntryBytes / sector; }
    std::size_t last() const { return disk.size() / sector - 1; }

    /// An entry of both copies.
    void add(std::size_t number, std::string const& type, std::uint64_t first, std::uint64_t end,
             std::u16string const& label = u"") {
        for (std::size_t const start : {std::size_t{2}, last() - entriesSectors()}) {
            std::size_t const at = start * sector + (number - 1) * kEntryBytes;
            putText(disk, at, type);
            put(disk, at + 16, 0x0706050403020100U + number, 8);
            put(disk, at + 24, 0x0F0E0D0C0B0A0908U, 8);
            put(disk, at + 32, first, 8);
            put(disk, at + 40, end, 8);
            for (std::size_t i = 0; i < label.size(); ++i)
                put(disk, at + 56 + 2 * i, label[i], 2);
        }
    }

    void finish() {
        finishHeader(1, 2);
        finishHeader(last(), last() - entriesSectors());
    }

    void finishHeader(std::size_t at, std::size_t entries, std::uint64_t count = kEntryCount,
                      std::uint64_t entryBytes = kEntryBytes) {
        std::size_t const place = at * sector;
        putText(disk, place, "EFI PART");
        put(disk, place + 8, 0x10000, 4);
        put(disk, place + 12, 92, 4);
        put(disk, place + 16, 0, 4);
        put(disk, place + 24, at, 8);
        put(disk, place + 56, 0xA0A1A2A3A4A5A6A7U, 8);
        put(disk, place + 72, entries, 8);
        put(disk, place + 80, count, 4);
        put(disk, place + 84, entryBytes, 4);
        put(disk, place + 88, crcOf(disk, entries * sector, kEntryCount * kEntryBytes), 4);
        put(disk, place + 16, crcOf(disk, place, 92), 4);
    }

    std::size_t sector;
    Bytes disk;
};

std::string const kLinux("\xAF\x3D\xC6\x0F\x83\x84\x72\x47\x8E\x79\x3D\x69\xD8\x47\x7D\xE4", 16);

PartitionTable read(Bytes const& disk) {
    BytesInMemory source(disk);
    return readPartitionTable(source);
}

/// Number, start, size and type of each.
std::string describe(PartitionTable const& table) {
    std::string text;
    for (Partition const& one : table.partitions) {
        text += std::to_string(one.number) + ":" + std::to_string(one.startBytes) + "+" +
                std::to_string(one.sizeBytes) + " " + one.type + (one.isExtended ? "*" : "") + "\n";
    }
    return text;
}

using Problems = std::vector<std::string>;

TEST(PartitionTableOf, WhatHasNoneIsNone) {
    for (Bytes const& disk :
         {Bytes(), Bytes(511), Bytes(512), Bytes(8 << 20), test_support::pattern(1 << 20, 1)}) {
        PartitionTable const table = read(disk);
        EXPECT_EQ(PartitionTable::Kind::None, table.kind);
        EXPECT_EQ(Problems(), table.problems);
        EXPECT_EQ("", describe(table));
    }
}

TEST(PartitionTableOf, AGPTHasNumbersTypesLabelsAndUUIDs) {
    GPT gpt(4096);
    gpt.add(1, kLinux, 64, 1063, u"root \u00e4\u20ac\U0001F600");
    gpt.add(3, std::string(16, 'x'), 2000, 2000, u"\xD800z");
    gpt.finish();
    PartitionTable const table = read(gpt.disk);
    EXPECT_EQ(PartitionTable::Kind::GPT, table.kind);
    EXPECT_EQ(Problems(), table.problems);
    EXPECT_EQ(512, table.sectorSizeBytes);
    EXPECT_EQ("a4a5a6a7-a2a3-a0a1-0000-000000000000", table.uuid);
    EXPECT_EQ("1:32768+512000 0fc63daf-8483-4772-8e79-3d69d8477de4\n"
              "3:1024000+512 78787878-7878-7878-7878-787878787878\n",
              describe(table));
    ASSERT_EQ(2U, table.partitions.size());
    EXPECT_EQ("Linux file system", table.partitions[0].typeName);
    EXPECT_EQ("", table.partitions[1].typeName);
    EXPECT_EQ("root \xC3\xA4\xE2\x82\xAC\xF0\x9F\x98\x80", table.partitions[0].label);
    EXPECT_EQ("\xEF\xBF\xBDz", table.partitions[1].label);
    EXPECT_EQ("03020101-0504-0706-0809-0a0b0c0d0e0f", table.partitions[0].uuid);
    EXPECT_EQ(&table.partitions[1], table.find(3));
    EXPECT_EQ(nullptr, table.find(2));
}

TEST(PartitionTableOf, AGPTMayCountInSectorsOf4096) {
    GPT gpt(1024, 4096);
    gpt.add(1, kLinux, 10, 19);
    gpt.finish();
    PartitionTable const table = read(gpt.disk);
    EXPECT_EQ(4096, table.sectorSizeBytes);
    EXPECT_EQ("1:40960+40960 0fc63daf-8483-4772-8e79-3d69d8477de4\n", describe(table));
}

TEST(PartitionTableOf, ADamagedGPTIsReadFromItsCopy) {
    GPT gpt(4096);
    gpt.add(1, kLinux, 64, 1063);
    gpt.finish();
    std::string const good = describe(read(gpt.disk));
    // The signature, the header, its place, the entries.
    for (std::size_t const at : {kSector, kSector + 60, kSector + 24, 2 * kSector + 40}) {
        SCOPED_TRACE(at);
        Bytes disk = gpt.disk;
        disk[at] ^= 1;
        PartitionTable const table = read(disk);
        EXPECT_EQ(good, describe(table));
        EXPECT_EQ(
            Problems{"The first copy of the partition table is damaged; this is the second one."},
            table.problems);
        disk[disk.size() - kSector] ^= 1;
        EXPECT_EQ(PartitionTable::Kind::MBR, read(disk).kind);
        EXPECT_EQ(Problems{"Both copies of the GPT are damaged or missing."}, read(disk).problems);
    }
}

TEST(PartitionTableOf, AGPTIsOnlyWhereTheFirstSectorSaysSo) {
    GPT gpt(4096);
    gpt.add(1, kLinux, 64, 1063);
    gpt.finish();
    putEntry(gpt.disk, 0, 0, 0x83, 100, 200);
    EXPECT_EQ("1:51200+102400 0x83\n", describe(read(gpt.disk)));
}

TEST(PartitionTableOf, AGPTWhoseEntriesCannotBeIsNone) {
    for (auto const& [count, bytes] : {std::pair<std::uint64_t, std::uint64_t>{0xFFFFFFFF, 128},
                                       {128, 0xFFFFFFFF},
                                       {128, 127},
                                       {1 << 20, 4096}}) {
        GPT gpt(4096);
        gpt.finishHeader(1, 2, count, bytes);
        EXPECT_EQ(Problems{"Both copies of the GPT are damaged or missing."},
                  read(gpt.disk).problems);
    }
}

TEST(PartitionTableOf, PartitionsOutsideOfTheDiskAreNotListed) {
    GPT gpt(4096);
    gpt.add(1, kLinux, 64, 63);
    gpt.add(2, kLinux, 64, 4096);
    gpt.add(3, kLinux, 0xFFFFFFFFFFFFFFFFU, 0xFFFFFFFFFFFFFFFFU);
    gpt.add(4, kLinux, 100, 0xFFFFFFFFFFFFFFFFU);
    gpt.add(5, kLinux, 4095, 4095);
    gpt.finish();
    PartitionTable const table = read(gpt.disk);
    EXPECT_EQ("5:2096640+512 0fc63daf-8483-4772-8e79-3d69d8477de4\n", describe(table));
    EXPECT_EQ(
        (Problems{"Partition 1 is not within the disk.", "Partition 2 is not within the disk.",
                  "Partition 3 is not within the disk.", "Partition 4 is not within the disk."}),
        table.problems);
}

TEST(PartitionTableOf, AnMBRHasPartitionsAndAChainOfMore) {
    Bytes disk(4096 * kSector);
    put(disk, 440, 0x2AB54C28, 4);
    putEntry(disk, 0, 0, 0x83, 64, 100);
    putEntry(disk, 0, 2, 0x0F, 1000, 2000);
    putEntry(disk, 1000, 0, 0x82, 10, 100);
    putEntry(disk, 1000, 1, 0x05, 500, 200);
    putEntry(disk, 1500, 0, 0x83, 20, 50);
    PartitionTable const table = read(disk);
    EXPECT_EQ(PartitionTable::Kind::MBR, table.kind);
    EXPECT_EQ("2ab54c28", table.uuid);
    EXPECT_EQ(Problems(), table.problems);
    EXPECT_EQ("1:32768+51200 0x83\n3:512000+1024000 0x0f*\n5:517120+51200 0x82\n"
              "6:778240+25600 0x83\n",
              describe(table));
    EXPECT_EQ("2ab54c28-06", table.partitions.back().uuid);
    EXPECT_EQ("Linux swap", table.partitions[2].typeName);
}

TEST(PartitionTableOf, AChainThatLeadsNowhereEnds) {
    for (std::uint64_t const next : {0ULL, 3000ULL, 4294967295ULL}) {
        SCOPED_TRACE(next);
        Bytes disk(4096 * kSector);
        putEntry(disk, 0, 0, 0x05, 1000, 2000);
        putEntry(disk, 1000, 0, 0x83, 10, 100);
        putEntry(disk, 1000, 1, 0x05, next, 200);
        // A link that has neither itself nor an end.
        PartitionTable const table = read(disk);
        EXPECT_EQ("1:512000+1024000 0x05*\n5:517120+51200 0x83\n", describe(table));
        EXPECT_EQ(Problems{"The chain of extended partitions is damaged behind partition 5."},
                  table.problems);
    }
}

TEST(PartitionTableOf, AChainWithoutEndIsFollowedToItsLimit) {
    Bytes disk(40000 * kSector);
    putEntry(disk, 0, 0, 0x05, 100, 39000);
    for (std::size_t i = 0; i < 300; ++i) {
        putEntry(disk, 100 + i * 100, 0, 0x83, 1, 50);
        putEntry(disk, 100 + i * 100, 1, 0x05, (i + 1) * 100, 100);
    }
    PartitionTable const table = read(disk);
    EXPECT_EQ(253U, table.partitions.size());
    EXPECT_EQ(256, table.partitions.back().number);
    EXPECT_EQ(Problems{"The chain of extended partitions is damaged behind partition 256."},
              table.problems);
}

TEST(PartitionTableOf, TheBootSectorOfAFileSystemIsNone) {
    Bytes fat(1 << 20);
    putEntry(fat, 0, 0, 0x83, 64, 100);
    ASSERT_EQ(PartitionTable::Kind::MBR, read(fat).kind);
    put(fat, 0, 0x9058EB, 3);
    put(fat, 11, 512, 2);
    put(fat, 13, 8, 1);
    put(fat, 14, 32, 2);
    put(fat, 16, 2, 1);
    put(fat, 21, 0xF8, 1);
    put(fat, 22, 16, 2);
    EXPECT_EQ(PartitionTable::Kind::None, read(fat).kind);
    Bytes code(1 << 20);
    putEntry(code, 0, 0, 0x83, 64, 100);
    put(code, 446, 0x41, 1);
    EXPECT_EQ(PartitionTable::Kind::None, read(code).kind);
}

TEST(PartitionTableOf, AnythingIsReadInBounds) {
    constexpr unsigned kSeed = 20260423;
    SCOPED_TRACE("seed " + std::to_string(kSeed));
    std::mt19937 random(kSeed);
    for (int round = 0; round < 2000; ++round) {
        GPT gpt(300);
        gpt.add(1, kLinux, 100, 200);
        gpt.finish();
        bool const isGPT = round % 2 == 0;
        for (std::uint32_t i = 0; i < 1 + random() % 8; ++i)
            gpt.disk.at(isGPT ? kSector + random() % 92 : 440 + random() % 70) =
                static_cast<unsigned char>(random());
        // As if whoever wrote that had meant it.
        if (isGPT)
            put(gpt.disk, kSector + 16, 0, 4);
        put(gpt.disk, kSector + 16, crcOf(gpt.disk, kSector, 92), 4);
        gpt.disk.resize(gpt.disk.size() - random() % 2000);
        // The source refuses what lies outside of it.
        for (Partition const& one : read(gpt.disk).partitions) {
            EXPECT_GT(one.startBytes, 0);
            EXPECT_GT(one.sizeBytes, 0);
            EXPECT_LE(one.startBytes + one.sizeBytes, static_cast<__int64>(gpt.disk.size()));
        }
    }
}

} // namespace
} // namespace content_test

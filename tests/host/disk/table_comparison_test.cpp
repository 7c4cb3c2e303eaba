#include "host/disk/table_comparison.h"

#include <gtest/gtest.h>

#include "kelm/extent/low_level_file_stream.h"
#include "kelm/format/constants.h"
#include "kelm/format/empty_sparse_extent_file.h"
#include "kelm/format/internal/little_endian.h"
#include "kelm/format/sparse_extent_header.h"
#include "kelm/graindata/internal/grain_record.h"
#include "tests/support/byte_builder.h"
#include "tests/support/bytes.h"
#include "tests/support/expect_error.h"
#include "tests/support/faulty_file_system.h"
#include "yx/memory_file_system.h"

namespace {

using kelm::kSectorSizeBytes;
using kelm::host::DamagedTable;

constexpr __int64 kGrainSizeSectors = 8;
constexpr __int64 kGrainCount = 1100; // three tables, the last with 76 grains
constexpr __int64 kStartGrainIndex = 500;

enum class Copy { Main, Redundant };

/// An extent file whose tables are changed byte by byte.
class TableComparisonTest : public testing::TestWithParam<bool> {
protected:
    TableComparisonTest() {
        kelm::createEmptyVMDKSparseExtentFile(
            files.get(), uri, GetParam(), kGrainCount, kGrainSizeSectors,
            test_support::toBuffer(test_support::zeros(4096)), nullptr, 0, {});
        stream = kelm::openVMDKFileStream(files.get(), uri, yx::IIOStream::ReadWrite);
        yx::CDataInStream in(stream.get());
        header.load(in);
        stream->setLength(1 << 20);
    }

    unsigned int readNumber(__int64 positionBytes) {
        unsigned char bytes[4];
        stream->seek(positionBytes);
        stream->read(bytes, 4);
        return kelm::loadLittleEndian<unsigned int>(bytes);
    }

    void writeNumber(__int64 positionBytes, unsigned int value) {
        unsigned char bytes[4];
        kelm::storeLittleEndian(bytes, value);
        stream->seek(positionBytes);
        stream->write(bytes, 4, nullptr);
    }

    __int64 directoryEntryBytes(Copy copy, __int64 table) {
        return static_cast<__int64>(copy == Copy::Main
                                        ? header.getGrainDirectoryOffsetSectors()
                                        : header.getRedundantGrainDirectoryOffsetSectors()) *
                   kSectorSizeBytes +
               4 * table;
    }

    void setEntry(Copy copy, __int64 grain, __int64 posSectors) {
        __int64 const table = readNumber(directoryEntryBytes(copy, grain / 512));
        writeNumber(table * kSectorSizeBytes + grain % 512 * 4,
                    static_cast<unsigned int>(posSectors));
    }

    void setBoth(__int64 grain, __int64 posSectors) {
        setEntry(Copy::Main, grain, posSectors);
        setEntry(Copy::Redundant, grain, posSectors);
        putRecord(grain, posSectors);
    }

    /// Where a grain of that number may lie: behind all metadata, apart from each other.
    __int64 placeOf(__int64 number) {
        return static_cast<__int64>(header.getOverheadSectors()) + number * kGrainSizeSectors;
    }

    void putRecord(__int64 grain, __int64 posSectors) {
        unsigned char record[kelm::kGrainRecordHeaderSizeBytes] = {};
        kelm::storeGrainRecordLBA(record, static_cast<unsigned long long>(
                                              (grain + kStartGrainIndex) * kGrainSizeSectors));
        stream->seek(posSectors * kSectorSizeBytes);
        stream->write(record, sizeof record, nullptr);
    }

    std::vector<DamagedTable> compare() {
        std::vector<DamagedTable> found;
        kelm::host::compareRedundantTables(
            *stream, kStartGrainIndex, nullptr,
            [&found](DamagedTable const& table) { found.push_back(table); });
        return found;
    }

    /// The numbers of the damaged tables, all of which differ.
    std::vector<__int64> findDiffering() {
        std::vector<__int64> tables;
        for (DamagedTable const& table : compare()) {
            EXPECT_EQ("differs from its redundant copy", table.text);
            tables.push_back(table.tableIndex);
        }
        return tables;
    }

    using Tables = std::vector<__int64>;

    yx::CURI uri{"mem:///a.vmdk"};
    yx::P<yx::CMemoryFileSystem> files = yx::makeObject<yx::CMemoryFileSystem>();
    yx::P<yx::IIOStream> stream;
    kelm::CVMDKSparseExtentHeader header;
};

TEST_P(TableComparisonTest, EqualTablesAreGood) {
    EXPECT_EQ(Tables{}, findDiffering());
    setBoth(0, placeOf(0));
    setBoth(1099, placeOf(1));
    EXPECT_EQ(Tables{}, findDiffering());
}

TEST_P(TableComparisonTest, AnEntryThatOnlyTheCopyHasIsDamage) {
    setBoth(600, placeOf(0));
    setBoth(1099, placeOf(1));
    setEntry(Copy::Main, 1099, 0);
    EXPECT_EQ(Tables{2}, findDiffering());
    setEntry(Copy::Main, 600, 0);
    EXPECT_EQ((Tables{1, 2}), findDiffering());
}

TEST_P(TableComparisonTest, TheStretchOfATableIsThatOfItsGrains) {
    setEntry(Copy::Redundant, 0, placeOf(0));
    setEntry(Copy::Redundant, 1024, placeOf(1));
    std::vector<DamagedTable> const found = compare();
    ASSERT_EQ(2u, found.size());
    EXPECT_EQ(0, found[0].startSectors);
    EXPECT_EQ(512 * kGrainSizeSectors, found[0].sizeSectors);
    EXPECT_EQ(1024 * kGrainSizeSectors, found[1].startSectors);
    EXPECT_EQ(76 * kGrainSizeSectors, found[1].sizeSectors);
}

TEST_P(TableComparisonTest, ACopyThatLagsBehindIsNoDamage) {
    setBoth(3, placeOf(0));
    for (int grain = 4; grain < 600; ++grain) {
        setEntry(Copy::Main, grain, placeOf(grain));
        putRecord(grain, placeOf(grain));
    }
    EXPECT_EQ(Tables{}, findDiffering());
}

TEST_P(TableComparisonTest, ANewEntryThatLeadsToAnotherGrainIsDamage) {
    setBoth(3, placeOf(7));
    setEntry(Copy::Main, 900, placeOf(7) + (GetParam() ? 0 : kGrainSizeSectors - 1));
    EXPECT_EQ(Tables{1}, findDiffering());
}

TEST_P(TableComparisonTest, TwoNewEntriesThatShareAPlaceAreDamage) {
    setEntry(Copy::Main, 4, placeOf(2));
    setEntry(Copy::Main, 700, placeOf(2));
    putRecord(4, placeOf(2));
    EXPECT_EQ(Tables{1}, findDiffering());
}

TEST_P(TableComparisonTest, ANewEntryOutsideTheDataIsDamage) {
    setEntry(Copy::Main, 0, 1);
    setEntry(Copy::Main, 1024, 0xFFFFFFFF);
    EXPECT_EQ((Tables{0, 2}), findDiffering());
}

TEST_P(TableComparisonTest, AMovedGrainIsDamageUnlessItsRecordProvesIt) {
    setBoth(5, placeOf(0));
    setEntry(Copy::Main, 5, placeOf(1));
    EXPECT_EQ(Tables{0}, findDiffering());
    putRecord(5, placeOf(1));
    EXPECT_EQ(GetParam() ? Tables{} : Tables{0}, findDiffering());
}

TEST_P(TableComparisonTest, ATableOutsideTheFileIsDamage) {
    writeNumber(directoryEntryBytes(Copy::Main, 1), 0xFFFFFFF0);
    std::vector<DamagedTable> found = compare();
    ASSERT_EQ(1u, found.size());
    EXPECT_EQ(1, found[0].tableIndex);
    EXPECT_EQ("lies outside the file", found[0].text);

    writeNumber(directoryEntryBytes(Copy::Redundant, 2), 0);
    found = compare();
    ASSERT_EQ(2u, found.size());
    EXPECT_EQ("has a redundant copy that lies outside the file", found[1].text);
}

TEST_P(TableComparisonTest, WithoutRedundantTablesThereIsNothingToCompare) {
    setEntry(Copy::Redundant, 0, placeOf(0));
    EXPECT_EQ(Tables{0}, findDiffering());
    header.setFlags(header.getFlags() & ~kelm::kFlagRedundantGrainDirectory);
    stream->seek(0);
    yx::CDataOutStream out(stream.get());
    header.store(out);
    EXPECT_EQ(Tables{}, findDiffering());
}

TEST_P(TableComparisonTest, AReadThatFailsIsTheStreamsError) {
    stream->flush();
    stream->close();
    auto const faulty = yx::makeObject<test_support::FaultyFileSystem>(files.get());
    stream = faulty->openFile(uri, yx::IIOStream::ReadOnly, nullptr);
    faulty->add({.kinds = {test_support::FileOperation::Kind::Read},
                 .nth = 3,
                 .code = yx::CIOError::IOFailure});
    EXPECT_TRUE(test_support::throwsIOError(yx::CIOError::IOFailure, "Injected failure.",
                                            {{"uri", "mem:///a.vmdk"}}, [this] { compare(); }));
}

INSTANTIATE_TEST_SUITE_P(Forms, TableComparisonTest, testing::Bool(),
                         [](auto const& form) { return form.param ? "Compressed" : "Plain"; });

} // namespace

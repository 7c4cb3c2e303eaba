#include "kelm/metadata/grain_directory.h"

#include <limits>
#include <numeric>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "kelm/metadata/grain_table_cache.h"
#include "tests/metadata/file_image.h"
#include "tests/support/allocation_counter.h"
#include "tests/support/bytes.h"
#include "tests/support/expect_error.h"
#include "tests/support/ignored_exception_capture.h"
#include "tests/support/log_capture.h"
#include "tests/support/scripted_stream.h"
#include "yx/optimizing_io_stream.h"

namespace kelm {

namespace grain_directory_test {

namespace {

using metadata_test::FileImage;
using test_support::Bytes;
using test_support::ScriptedStream;
using test_support::slice;
using Kind = ScriptedStream::Kind;
using Operation = ScriptedStream::Operation;
using IgnoredExceptions = std::vector<test_support::IgnoredExceptionCapture::Entry>;
using Operations = std::vector<Operation>;

constexpr __int64 kMax = std::numeric_limits<__int64>::max();

/// What a directory is opened with; the defaults fit the files below.
struct Settings {
    yx::IIOStream::Access access = yx::IIOStream::ReadWrite;
    __int64 directoryPos = 1;
    __int64 redundantDirectoryPos = 0;
    __int64 capacitySectors = 96;
    __int64 grainSizeSectors = 8;
    int entriesPerTable = 4;
    bool compressed = false;
};

yx::P<CVMDKGrainDirectory> open(ScriptedStream& stream, CVMDKGrainTableCache& cache,
                                Settings const& settings) {
    return yx::makeObject<CVMDKGrainDirectory>(
        &stream, settings.access, settings.directoryPos, settings.redundantDirectoryPos,
        settings.capacitySectors, settings.grainSizeSectors, settings.entriesPerTable,
        settings.compressed, &cache);
}

struct Info {
    __int64 posSectors;
    __int64 slotSizeSectors;

    bool operator==(Info const&) const = default;
};

std::ostream& operator<<(std::ostream& stream, Info const& info) {
    return stream << info.posSectors << " of " << info.slotSizeSectors;
}

Info infoOf(CVMDKGrainDirectory& directory, __int64 grainIndex) {
    Info info{-1, -1};
    directory.getGrainInfo(grainIndex, info.posSectors, info.slotSizeSectors);
    return info;
}

/// Three tables of four entries for grains of eight sectors, and everything that can go with them:
/// directory at sector 1, redundant directory at 2, tables at 10, redundant tables at 20, slot size
/// directory at 24 behind its marker, slot size tables at 30.
FileImage completeFile() {
    return FileImage(33)
        .put32(1, {10, 11, 12})
        .put32(2, {20, 21, 22})
        .put32(10, {100, 101, 102, 103})
        .put32(11, {110, 111, 112, 113})
        .put32(12, {120, 121, 122, 123})
        .putSlotDirectoryMarker(23, 1)
        .put32(24, {30, 31, 32})
        .put16(30, {1, 2, 3, 4})
        .put16(31, {5, 6, 7, 8})
        .put16(32, {9, 10, 11, 12});
}

Settings const kComplete{.redundantDirectoryPos = 2, .compressed = true};

/// A file of `tableCount` tables without redundant tables or slot sizes: directory at sector 1,
/// tables from sector 10 on. The first entry of table t is 1000 + t.
FileImage plainFile(int tableCount) {
    FileImage file(10 + tableCount);
    std::vector<std::uint32_t> positions(static_cast<std::size_t>(tableCount));
    std::iota(positions.begin(), positions.end(), 10);
    file.put32(1, positions);
    for (int i = 0; i < tableCount; ++i)
        file.put32(10 + i, {1000 + static_cast<std::uint32_t>(i)});
    return file;
}

Settings plainSettings(int tableCount) {
    return {.capacitySectors = __int64{tableCount} * 4 * 8};
}

/// The reads of the plain file's tables `first` to `last`.
Operations tableReads(int first, int last) {
    Operations operations;
    for (int i = first; i <= last; ++i)
        operations.push_back({Kind::Read, (10 + i) * 512, 16});
    return operations;
}

class GrainDirectory : public testing::Test {
protected:
    yx::P<CVMDKGrainDirectory> openFile(FileImage const& file, Settings const& settings) {
        stream = yx::makeObject<ScriptedStream>(file.bytes());
        return open(*stream, *cache, settings);
    }

    /// Opens a directory and forgets the operations that this took.
    yx::P<CVMDKGrainDirectory> openQuietly(FileImage const& file, Settings const& settings) {
        yx::P<CVMDKGrainDirectory> directory = openFile(file, settings);
        stream->operations().clear();
        return directory;
    }

    Operations takeOperations() { return std::exchange(stream->operations(), {}); }

    yx::P<CVMDKGrainTableCache> cache = yx::makeObject<CVMDKGrainTableCache>();
    yx::P<ScriptedStream> stream;
};

TEST(GrainDirectoryCounts, RoundUp) {
    struct {
        __int64 capacitySectors;
        __int64 grainSizeSectors;
        int entriesPerTable;
        __int64 grainCount;
        __int64 tableCount;
    } const cases[] = {
        {0, 128, 512, 0, 0},
        {1, 128, 512, 1, 1},
        {128, 128, 512, 1, 1},
        {129, 128, 512, 2, 1},
        {128 * 512, 128, 512, 512, 1},
        {128 * 512 + 1, 128, 512, 513, 2},
        {1000, 1, 1, 1000, 1000},
        {1000, 7, 100000, 143, 1},
        {kMax, 1, 1, kMax, kMax},
        {kMax, 128, 512, 72057594037927936, 140737488355328},
        {kMax, kMax, 2147483647, 1, 1},
        {-1, 128, 512, 0, 0},
        {-1000, 128, 512, -6, 0},
    };
    for (auto const& c : cases) {
        EXPECT_EQ(CVMDKGrainDirectory::calcExtentGrainCount(c.capacitySectors, c.grainSizeSectors),
                  c.grainCount);
        EXPECT_EQ(CVMDKGrainDirectory::calcExtentGrainTableCount(
                      c.capacitySectors, c.grainSizeSectors, c.entriesPerTable),
                  c.tableCount);
    }
}

TEST(GrainDirectoryCounts, SizesBelowOneAreRefused) {
    EXPECT_TRUE(test_support::throwsInvalidArg(
        "CVMDKGrainDirectory::calcExtentGrainCount", "Invalid grain size: 0", {},
        [] { CVMDKGrainDirectory::calcExtentGrainCount(100, 0); }));
    EXPECT_TRUE(test_support::throwsInvalidArg(
        "CVMDKGrainDirectory::calcExtentGrainCount", "Invalid grain size: -128", {},
        [] { CVMDKGrainDirectory::calcExtentGrainTableCount(100, -128, 512); }));
    EXPECT_TRUE(test_support::throwsInvalidArg(
        "CVMDKGrainDirectory::calcExtentGrainTableCount", "Invalid grain table size: 0", {},
        [] { CVMDKGrainDirectory::calcExtentGrainTableCount(100, 128, 0); }));
    EXPECT_TRUE(test_support::throwsInvalidArg(
        "CVMDKGrainDirectory::calcExtentGrainTableCount", "Invalid grain table size: -1", {},
        [] { CVMDKGrainDirectory::calcExtentGrainTableCount(100, 128, -1); }));
}

TEST_F(GrainDirectory, ReadsDirectoriesThenProbesBehindTheLastTable) {
    yx::P<CVMDKGrainDirectory> const directory = openFile(completeFile(), kComplete);
    EXPECT_EQ(stream->operations(), (Operations{{Kind::Read, 512, 12},
                                                {Kind::Read, 1024, 12},
                                                {Kind::Read, 23 * 512, 512},
                                                {Kind::Read, 24 * 512, 12}}));
    EXPECT_TRUE(directory->getHaveSlotSizeInfo());
}

TEST_F(GrainDirectory, RunsWithoutSlotSizesIfUncompressed) {
    yx::P<CVMDKGrainDirectory> const directory = openFile(plainFile(3), plainSettings(3));
    EXPECT_EQ(stream->operations(),
              (Operations{{Kind::Read, 512, 12}, {Kind::Read, 13 * 512, 512}}));
    EXPECT_FALSE(directory->getHaveSlotSizeInfo());
    EXPECT_EQ(infoOf(*directory, 4), (Info{1001, 8}));
}

TEST_F(GrainDirectory, ReadsTableRedundantPositionAndSlotSizesOfEachGrain) {
    yx::P<CVMDKGrainDirectory> const directory = openFile(completeFile(), kComplete);
    EXPECT_EQ(infoOf(*directory, 0), (Info{100, 1}));
    EXPECT_EQ(infoOf(*directory, 3), (Info{103, 4}));
    EXPECT_EQ(infoOf(*directory, 4), (Info{110, 5}));
    EXPECT_EQ(infoOf(*directory, 11), (Info{123, 12}));
}

TEST_F(GrainDirectory, IsWhereTheHeaderSays) {
    CVMDKSparseExtentHeader header;
    header.setFlags(kFlagCompressed);
    header.setGrainDirectoryOffsetSectors(1);
    header.setRedundantGrainDirectoryOffsetSectors(2);
    header.setCapacitySectors(96);
    header.setGrainSizeSectors(8);
    header.setGrainTableEntryCount(4);
    stream = yx::makeObject<ScriptedStream>(completeFile().bytes());
    {
        auto const directory = yx::makeObject<CVMDKGrainDirectory>(
            stream.get(), yx::IIOStream::ReadWrite, header, cache.get());
        EXPECT_TRUE(directory->getHaveSlotSizeInfo());
        EXPECT_EQ(infoOf(*directory, 11), (Info{123, 12}));
        EXPECT_THROW(infoOf(*directory, 12), yx::CInvalidArgError);
        directory->setGrainInfo(11, 124, 13);
        takeOperations();
    }
    EXPECT_EQ(takeOperations(), (Operations{{Kind::Write, 12 * 512, 16},
                                            {Kind::Write, 22 * 512, 16},
                                            {Kind::Write, 32 * 512, 8}}));

    // Without its flag, a slot size directory need not be there.
    stream = yx::makeObject<ScriptedStream>(FileImage(33).put32(1, {10, 11, 12}).bytes());
    EXPECT_THROW(yx::makeObject<CVMDKGrainDirectory>(stream.get(), yx::IIOStream::ReadOnly, header,
                                                     cache.get()),
                 yx::CError);
    header.setFlags(0);
    EXPECT_NO_THROW(yx::makeObject<CVMDKGrainDirectory>(stream.get(), yx::IIOStream::ReadOnly,
                                                        header, cache.get()));
}

TEST_F(GrainDirectory, WritesEachTableToItsThreePlaces) {
    yx::P<CVMDKGrainDirectory> const directory = openFile(completeFile(), kComplete);
    directory->setGrainInfo(6, 0x01020304, 0x0506);
    stream->operations().clear();
    directory->flushChangesToStream();
    EXPECT_EQ(stream->operations(), (Operations{{Kind::Write, 11 * 512, 16},
                                                {Kind::Write, 21 * 512, 16},
                                                {Kind::Write, 31 * 512, 8}}));
    Bytes const entries{110, 0, 0, 0, 111, 0, 0, 0, 4, 3, 2, 1, 113, 0, 0, 0};
    EXPECT_EQ(slice(stream->content(), 11 * 512, 16), entries);
    EXPECT_EQ(slice(stream->content(), 21 * 512, 16), entries);
    EXPECT_EQ(slice(stream->content(), 31 * 512, 8), (Bytes{5, 0, 6, 0, 6, 5, 8, 0}));
}

// --- The search for the slot size directory.

TEST_F(GrainDirectory, ProbesBehindWhicheverCopyLiesLast) {
    struct {
        std::uint32_t lastEntry;
        std::uint32_t lastRedundantEntry;
        int entriesPerTable;
        long long probeSector;
    } const cases[] = {
        {12, 22, 4, 23},
        {22, 12, 4, 23},
        {12, 0, 128, 13},
        {12, 0, 129, 14},
        {12, 0, 512, 16},
        // The larger one, taken without a sign.
        {0x80000000, 5, 4, 1},
        {5, 0x80000000, 4, 1},
    };
    for (auto const& c : cases) {
        openFile(
            FileImage(40).put32(1, {10, 11, c.lastEntry}).put32(2, {20, 21, c.lastRedundantEntry}),
            {.redundantDirectoryPos = 2,
             .capacitySectors = __int64{3} * c.entriesPerTable * 8,
             .entriesPerTable = c.entriesPerTable});
        EXPECT_EQ(stream->operations().back(), (Operation{Kind::Read, c.probeSector * 512, 512}));
    }
}

TEST_F(GrainDirectory, IgnoresTheRedundantDirectoryIfTheHeaderHasNone) {
    for (__int64 const redundantPos : {0, -1}) {
        openFile(completeFile(), {.redundantDirectoryPos = redundantPos});
        EXPECT_EQ(stream->operations(),
                  (Operations{{Kind::Read, 512, 12}, {Kind::Read, 13 * 512, 512}}));
    }
}

TEST_F(GrainDirectory, ProbeWrapsAtFourGiB) {
    // The last table at 4 GiB: the probe at sector 0x800001 looks at sector 1.
    openFile(FileImage(20).put32(2, {10, 11, 0x800000}), {.directoryPos = 2});
    EXPECT_EQ(stream->operations(), (Operations{{Kind::Read, 1024, 12}, {Kind::Read, 512, 512}}));

    // The sum of sectors wraps as well.
    openFile(FileImage(20).put32(2, {10, 11, 0xFFFFFFFF}), {.directoryPos = 2});
    EXPECT_EQ(stream->operations(), (Operations{{Kind::Read, 1024, 12}, {Kind::Read, 0, 512}}));
}

TEST_F(GrainDirectory, SlotSizeDirectoryItselfIsReadBehindFourGiB) {
    FileImage file(20);
    file.put32(2, {10, 11, 0x800000}).putSlotDirectoryMarker(1, 1);
    EXPECT_TRUE(test_support::throwsIOError(
        yx::CIOError::UnexpectedEnd, "Unexpected end of the scripted stream.",
        {{"uri", "test:/stream"}}, [&] { openFile(file, {.directoryPos = 2}); }));
    EXPECT_EQ(stream->operations(), (Operations{{Kind::Read, 1024, 12},
                                                {Kind::Read, 512, 512},
                                                {Kind::Read, 0x800002LL * 512, 12}}));
}

TEST_F(GrainDirectory, WithoutTablesProbesBehindTheLaterDirectory) {
    struct {
        __int64 directoryPos;
        __int64 redundantDirectoryPos;
        Operations operations;
    } const cases[] = {
        {5, 0, {{Kind::Read, 5 * 512, 0}, {Kind::Read, 6 * 512, 512}}},
        {5, 7, {{Kind::Read, 5 * 512, 0}, {Kind::Read, 7 * 512, 0}, {Kind::Read, 8 * 512, 512}}},
        {7, 5, {{Kind::Read, 7 * 512, 0}, {Kind::Read, 5 * 512, 0}, {Kind::Read, 8 * 512, 512}}},
    };
    for (auto const& c : cases) {
        yx::P<CVMDKGrainDirectory> const directory =
            openFile(FileImage(20), {.directoryPos = c.directoryPos,
                                     .redundantDirectoryPos = c.redundantDirectoryPos,
                                     .capacitySectors = 0});
        EXPECT_EQ(stream->operations(), c.operations);
        EXPECT_TRUE(test_support::throwsInvalidArg(
            "CVMDKGrainDirectory::getGrainTable", "invalid table index: 0",
            {{"uri", "test:/stream"}}, [&] { infoOf(*directory, 0); }));
    }
}

TEST_F(GrainDirectory, WithoutTablesAMarkerGivesNoSlotSizes) {
    yx::P<CVMDKGrainDirectory> const directory =
        openFile(FileImage(20).putSlotDirectoryMarker(6, 0),
                 {.directoryPos = 5, .capacitySectors = 0, .compressed = true});
    EXPECT_EQ(stream->operations(),
              (Operations{
                  {Kind::Read, 5 * 512, 0}, {Kind::Read, 6 * 512, 512}, {Kind::Read, 7 * 512, 0}}));
    EXPECT_FALSE(directory->getHaveSlotSizeInfo());
}

TEST_F(GrainDirectory, MarkerWithAnotherSizeIsIgnoredWithAWarning) {
    test_support::LogCapture log;
    FileImage marked(16);
    marked.put32(1, {10, 11, 12}).putSlotDirectoryMarker(13, 2);
    yx::P<CVMDKGrainDirectory> const directory = openFile(marked, plainSettings(3));
    EXPECT_FALSE(directory->getHaveSlotSizeInfo());
    test_support::LogCapture::Entry const warning{
        yx::LogLevel::Warning,
        "Found VMDK marker for yxSlotDirectory, but the slot directory size does not match the "
        "expected value (actual: 2, expected: 1, uri: 'test:/stream'). Ignoring the slot "
        "directory.",
        "", ""};
    EXPECT_EQ(log.entries(), std::vector(1, warning));

    Settings compressed = plainSettings(3);
    compressed.compressed = true;
    EXPECT_TRUE(test_support::throwsError("Slot size directory not found in compressed VMDK.",
                                          {{"uri", "test:/stream"}},
                                          [&] { openFile(marked, compressed); }));
    EXPECT_EQ(log.entries(), std::vector(2, warning));
}

TEST_F(GrainDirectory, SlotSizeDirectoryIsAsLargeAsItsEntriesNeed) {
    // 129 tables: two sectors. The marker stands behind the last table at sector 138.
    std::vector<std::uint32_t> slotTables(129, 142);
    FileImage marked(143);
    std::vector<std::uint32_t> tables(129);
    std::iota(tables.begin(), tables.end(), 10);
    marked.put32(1, tables)
        .putSlotDirectoryMarker(139, 2)
        .put32(140, slotTables)
        .put32(138, {500})
        .put16(142, {77});
    Settings settings = plainSettings(129);
    settings.compressed = true;
    yx::P<CVMDKGrainDirectory> const directory = openFile(marked, settings);
    EXPECT_TRUE(directory->getHaveSlotSizeInfo());
    EXPECT_EQ(stream->operations().back(), (Operation{Kind::Read, 140 * 512, 516}));
    EXPECT_EQ(infoOf(*directory, 128 * 4), (Info{500, 77}));
}

TEST_F(GrainDirectory, CompressedExtentNeedsItsSlotSizeDirectory) {
    Settings settings = plainSettings(3);
    settings.compressed = true;
    for (yx::IIOStream::Access const access : {yx::IIOStream::ReadOnly, yx::IIOStream::ReadWrite}) {
        settings.access = access;
        // The file ends where the marker would be, ends within it, or has something else there.
        for (int const probeBytes : {0, 511, 512}) {
            std::vector<unsigned char> content = plainFile(3).bytes();
            content.resize(content.size() + static_cast<std::size_t>(probeBytes));
            stream = yx::makeObject<ScriptedStream>(content);
            EXPECT_TRUE(test_support::throwsError(
                "Slot size directory not found in compressed VMDK.", {{"uri", "test:/stream"}},
                [&] { open(*stream, *cache, settings); }));
        }
    }
    EXPECT_EQ(cache->getCachedTableCount(), 0);
}

TEST_F(GrainDirectory, ShortReadBehindTheLastTableIsNoError) {
    for (std::size_t const probeBytes : {0U, 1U, 511U}) {
        std::vector<unsigned char> content =
            FileImage(14).put32(1, {10, 11, 12}).putSlotDirectoryMarker(13, 1).bytes();
        content.resize(13 * 512 + probeBytes);
        stream = yx::makeObject<ScriptedStream>(content);
        EXPECT_FALSE(open(*stream, *cache, plainSettings(3))->getHaveSlotSizeInfo());
    }
}

// --- Files that cannot be right.

TEST_F(GrainDirectory, SizesThatCannotBeAreCorruptData) {
    struct {
        Settings settings;
        char const* message;
    } const cases[] = {
        {{.grainSizeSectors = 0}, "Invalid grain size in VMDK sparse extent: 0"},
        {{.grainSizeSectors = -8}, "Invalid grain size in VMDK sparse extent: -8"},
        {{.entriesPerTable = 0}, "Invalid grain table size in VMDK sparse extent: 0"},
        {{.entriesPerTable = -1}, "Invalid grain table size in VMDK sparse extent: -1"},
        {{.capacitySectors = -1}, "Invalid capacity in VMDK sparse extent: -1"},
        {{.capacitySectors = kMax}, "Invalid capacity in VMDK sparse extent: 9223372036854775807"},
        {{.capacitySectors = kMax, .grainSizeSectors = 1, .entriesPerTable = 1},
         "Invalid capacity in VMDK sparse extent: 9223372036854775807"},
        // 2^31 tables.
        {{.capacitySectors = 0x80000000, .grainSizeSectors = 1, .entriesPerTable = 1},
         "Invalid capacity in VMDK sparse extent: 2147483648"},
        // Tables of more than 4 MiB in a file of 16 KiB.
        {{.capacitySectors = 1048577 * 8LL}, "Invalid capacity in VMDK sparse extent: 8388616"},
        {{.capacitySectors = 1, .entriesPerTable = 2147483647},
         "Invalid capacity in VMDK sparse extent: 1"},
    };
    for (auto const& c : cases) {
        EXPECT_TRUE(test_support::throwsIOError(yx::CIOError::CorruptData, c.message,
                                                {{"uri", "test:/stream"}},
                                                [&] { openFile(FileImage(32), c.settings); }));
        EXPECT_EQ(stream->operations(), Operations{});
    }
}

TEST_F(GrainDirectory, LargeTablesAreFineInAFileThatHasRoomForThem) {
    // 1,200,000 entries of 4 bytes in a file of 4.8 MB and a little more.
    FileImage file(9377);
    file.put32(1, {2}).put32(2, {4711});
    yx::P<CVMDKGrainDirectory> const directory =
        openFile(file, {.capacitySectors = 8, .entriesPerTable = 1200000});
    EXPECT_EQ(infoOf(*directory, 0), (Info{4711, 8}));
}

TEST_F(GrainDirectory, PositionsThatCannotBeAreCorruptData) {
    struct {
        Settings settings;
        char const* message;
    } const cases[] = {
        {{.directoryPos = -1}, "Invalid grain directory position in VMDK sparse extent: -1"},
        {{.directoryPos = kMax},
         "Invalid grain directory position in VMDK sparse extent: 9223372036854775807"},
        {{.redundantDirectoryPos = kMax},
         "Invalid redundant grain directory position in VMDK sparse extent: 9223372036854775807"},
    };
    for (auto const& c : cases) {
        EXPECT_TRUE(test_support::throwsIOError(yx::CIOError::CorruptData, c.message,
                                                {{"uri", "test:/stream"}},
                                                [&] { openFile(plainFile(3), c.settings); }));
    }
}

TEST_F(GrainDirectory, DirectoriesAndTablesBehindTheEndFailWithTheErrorOfTheStream) {
    auto const endsUnexpectedly = [](std::function<void()> const& action) {
        return test_support::throwsIOError(yx::CIOError::UnexpectedEnd,
                                           "Unexpected end of the scripted stream.",
                                           {{"uri", "test:/stream"}}, action);
    };
    EXPECT_TRUE(endsUnexpectedly([&] { openFile(plainFile(3), {.directoryPos = 13}); }));
    EXPECT_TRUE(endsUnexpectedly([&] { openFile(plainFile(3), {.redundantDirectoryPos = 13}); }));

    FileImage slotDirectoryCut(14);
    slotDirectoryCut.put32(1, {10, 11, 12}).putSlotDirectoryMarker(13, 1);
    EXPECT_TRUE(endsUnexpectedly([&] { openFile(slotDirectoryCut, {}); }));

    yx::P<CVMDKGrainDirectory> const directory =
        openFile(FileImage(14).put32(1, {10, 0xFFFFFFFF, 12}), {});
    EXPECT_TRUE(endsUnexpectedly([&] { infoOf(*directory, 8); }));
    // Not even the table that could be read: a run is there as a whole or not at all.
    EXPECT_EQ(cache->getCachedTableCount(), 0);
}

TEST_F(GrainDirectory, FailureOfAReadAtOpeningPasses) {
    for (int failing = 0; failing < 4; ++failing) {
        stream = yx::makeObject<ScriptedStream>(completeFile().bytes());
        int reads = 0;
        stream->setFault([&](Operation const&) { return reads++ == failing; });
        EXPECT_TRUE(test_support::throwsIOError(yx::CIOError::IOFailure, "Scripted failure.",
                                                {{"uri", "test:/stream"}},
                                                [&] { open(*stream, *cache, kComplete); }));
    }
}

// --- Tables.

TEST_F(GrainDirectory, LoadsTheAlignedRunOfThirtyTwoTables) {
    yx::P<CVMDKGrainDirectory> const directory = openQuietly(plainFile(100), plainSettings(100));
    EXPECT_EQ(infoOf(*directory, 40 * 4), (Info{1040, 8}));
    EXPECT_EQ(takeOperations(), tableReads(32, 63));
    EXPECT_EQ(infoOf(*directory, 31 * 4), (Info{1031, 8}));
    EXPECT_EQ(takeOperations(), tableReads(0, 31));
    EXPECT_EQ(cache->getCachedTableCount(), 64);
}

TEST_F(GrainDirectory, RunEndsWithTheDirectory) {
    yx::P<CVMDKGrainDirectory> const directory = openQuietly(plainFile(40), plainSettings(40));
    directory->getGrainTable(35);
    EXPECT_EQ(takeOperations(), tableReads(32, 39));
}

TEST_F(GrainDirectory, CachedTableIsNotReadAgainAndBecomesTheMostRecentlyUsed) {
    cache = yx::makeObject<CVMDKGrainTableCache>(40);
    yx::P<CVMDKGrainDirectory> const directory = openQuietly(plainFile(100), plainSettings(100));
    yx::P<CVMDKGrainTable> const table = directory->getGrainTable(3);
    stream->operations().clear();
    EXPECT_EQ(directory->getGrainTable(3), table);
    EXPECT_EQ(directory->getGrainTable(3), table);
    EXPECT_EQ(takeOperations(), Operations{});

    // The next run leaves room for eight tables of this one: 3 is among them, and 31 to 25.
    directory->getGrainTable(99);
    directory->getGrainTable(32);
    EXPECT_NE(cache->getCachedTable(directory.get(), 3), nullptr);
}

TEST_F(GrainDirectory, LookupOfACachedTableAllocatesNothing) {
    yx::P<CVMDKGrainDirectory> const directory = openFile(plainFile(100), plainSettings(100));
    infoOf(*directory, 0);
    infoOf(*directory, 40 * 4);
    test_support::AllocationCounter const allocations;
    for (int const table : {3, 40, 3, 63, 0})
        infoOf(*directory, table * 4);
    EXPECT_EQ(allocations.count(), 0);
}

TEST_F(GrainDirectory, TableOfAnEntryOfZeroIsReadFromSectorZero) {
    yx::P<CVMDKGrainDirectory> const directory =
        openQuietly(FileImage(14).put32(0, {31, 32, 33, 34}).put32(1, {10, 0, 12}), {});
    EXPECT_EQ(infoOf(*directory, 5), (Info{32, 8}));
    EXPECT_EQ(
        takeOperations(),
        (Operations{{Kind::Read, 10 * 512, 16}, {Kind::Read, 0, 16}, {Kind::Read, 12 * 512, 16}}));
}

TEST_F(GrainDirectory, TableIndexOutsideTheDirectoryIsRefused) {
    yx::P<CVMDKGrainDirectory> const directory = openQuietly(plainFile(3), plainSettings(3));
    struct {
        __int64 index;
        char const* message;
    } const cases[] = {
        {-1, "invalid table index: -1"},
        {3, "invalid table index: 3"},
        {0x100000000, "invalid table index: 4294967296"},
    };
    for (auto const& c : cases) {
        EXPECT_TRUE(test_support::throwsInvalidArg("CVMDKGrainDirectory::getGrainTable", c.message,
                                                   {{"uri", "test:/stream"}},
                                                   [&] { directory->getGrainTable(c.index); }));
    }
    EXPECT_EQ(takeOperations(), Operations{});
}

TEST_F(GrainDirectory, GrainIndexOutsideTheExtentFailsInTableOrDirectory) {
    yx::P<CVMDKGrainDirectory> const directory = openFile(plainFile(3), plainSettings(3));
    struct {
        __int64 grainIndex;
        char const* getFunction;
        char const* setFunction;
        char const* message;
    } const cases[] = {
        {-1, "CVMDKGrainTable::getGrainInfo", "CVMDKGrainTable::setGrainInfo",
         "Invalid grain index: -1"},
        {-3, "CVMDKGrainTable::getGrainInfo", "CVMDKGrainTable::setGrainInfo",
         "Invalid grain index: -3"},
        {-4, "CVMDKGrainDirectory::getGrainTable", "CVMDKGrainDirectory::getGrainTable",
         "invalid table index: -1"},
        {12, "CVMDKGrainDirectory::getGrainTable", "CVMDKGrainDirectory::getGrainTable",
         "invalid table index: 3"},
    };
    for (auto const& c : cases) {
        EXPECT_TRUE(test_support::throwsInvalidArg(c.getFunction, c.message,
                                                   {{"uri", "test:/stream"}},
                                                   [&] { infoOf(*directory, c.grainIndex); }));
        EXPECT_TRUE(
            test_support::throwsInvalidArg(c.setFunction, c.message, {{"uri", "test:/stream"}},
                                           [&] { directory->setGrainInfo(c.grainIndex, 5, 8); }));
    }
}

TEST_F(GrainDirectory, GrainsBehindTheCapacityButWithinTheLastTableAreReachable) {
    Settings settings = plainSettings(3);
    settings.capacitySectors = 2 * 4 * 8 + 1;
    yx::P<CVMDKGrainDirectory> const directory = openFile(plainFile(3), settings);
    EXPECT_EQ(infoOf(*directory, 8), (Info{1002, 8}));
    EXPECT_EQ(infoOf(*directory, 11), (Info{0, 0}));
}

TEST_F(GrainDirectory, WriteToAReadOnlyExtentIsRefusedByTheTable) {
    Settings settings = plainSettings(3);
    settings.access = yx::IIOStream::ReadOnly;
    yx::P<CVMDKGrainDirectory> const directory = openFile(plainFile(3), settings);
    EXPECT_TRUE(test_support::throwsError(
        "Internal error: CVMDKGrainTable::setGrainInfo was called, but the table was not opened "
        "for writing.",
        {}, [&] { directory->setGrainInfo(0, 5, 8); }));
}

TEST_F(GrainDirectory, LoadedRunReplacesCachedNeighboursByStaleCopies) {
    // Room for all but one: of the first run, table 0 is gone and table 1 is changed.
    cache = yx::makeObject<CVMDKGrainTableCache>(31);
    yx::P<CVMDKGrainDirectory> const directory = openQuietly(plainFile(32), plainSettings(32));
    directory->getGrainTable(1);
    directory->setGrainInfo(4, 7777, 8);
    stream->operations().clear();

    directory->getGrainTable(0);

    // Table 1 is read again first; only then does the old object write its change.
    Operations expected = tableReads(0, 1);
    expected.push_back({Kind::Write, 11 * 512, 16});
    for (Operation const& read : tableReads(2, 31))
        expected.push_back(read);
    EXPECT_EQ(takeOperations(), expected);
    EXPECT_EQ(slice(stream->content(), 11 * 512, 4), (Bytes{0x61, 0x1E, 0, 0}));

    // The new object does not know the change, and overwrites it with its own next one.
    EXPECT_EQ(infoOf(*directory, 4), (Info{1001, 8}));
    directory->setGrainInfo(5, 8888, 8);
    directory->flushChangesToStream();
    EXPECT_EQ(slice(stream->content(), 11 * 512, 8), (Bytes{0xE9, 0x03, 0, 0, 0xB8, 0x22, 0, 0}));
}

TEST_F(GrainDirectory, FailedLoadLeavesNoTableOfItsRunInTheCache) {
    yx::P<CVMDKGrainDirectory> const directory = openQuietly(plainFile(40), plainSettings(40));
    directory->getGrainTable(35);
    stream->setFault([](Operation const& operation) { return operation.position == 30 * 512; });
    takeOperations();
    EXPECT_THROW(directory->getGrainTable(3), yx::CIOError);
    EXPECT_EQ(takeOperations(), tableReads(0, 20));
    EXPECT_EQ(cache->getCachedTableCount(), 8);
    EXPECT_THROW(directory->getGrainTable(3), yx::CIOError);
    EXPECT_EQ(takeOperations(), tableReads(0, 20));

    stream->setFault({});
    EXPECT_EQ(infoOf(*directory, 3 * 4), (Info{1003, 8}));
    EXPECT_EQ(takeOperations(), tableReads(0, 31));
    EXPECT_EQ(cache->getCachedTableCount(), 40);
}

TEST_F(GrainDirectory, NoChangeIsLostWhereATableOfTheRunCannotBeRead) {
    yx::P<CVMDKGrainDirectory> const directory = openQuietly(plainFile(32), plainSettings(32));
    stream->setFault([](Operation const& operation) {
        return operation.kind == Kind::Read && operation.position == 30 * 512;
    });
    // Who gets an error tries again; who gets none relies on it.
    std::vector<__int64> changed;
    for (int grain = 1; grain < 32 * 4; grain += 9) {
        for (int attempt = 0; attempt < 2; ++attempt) {
            if (grain == 64)
                stream->setFault({});
            try {
                directory->setGrainInfo(grain, 5000 + grain, 8);
                changed.push_back(grain);
                break;
            } catch (yx::CIOError const&) {
            }
        }
        directory->flushChangesToStream();
    }
    EXPECT_EQ(changed, (std::vector<__int64>{64, 73, 82, 91, 100, 109, 118, 127}));
    yx::P<CVMDKGrainTableCache> const otherCache = yx::makeObject<CVMDKGrainTableCache>();
    yx::P<CVMDKGrainDirectory> const reopened = open(*stream, *otherCache, plainSettings(32));
    for (__int64 const grain : changed)
        EXPECT_EQ(infoOf(*reopened, grain), (Info{5000 + grain, 8}));
}

TEST_F(GrainDirectory, FailedLoadLeavesNoStaleCopyOfAChangedNeighbour) {
    cache = yx::makeObject<CVMDKGrainTableCache>(1);
    yx::P<CVMDKGrainDirectory> const directory = openQuietly(plainFile(32), plainSettings(32));
    directory->getGrainTable(0);
    cache->setCachedTable(directory.get(), 2, directory->getGrainTable(2).get());
    cache->setAutoEnforceLimit(false);
    directory->setGrainInfo(2 * 4 + 1, 5000, 8);
    stream->setFault([](Operation const& operation) {
        return operation.kind == Kind::Read && operation.position == 30 * 512;
    });
    EXPECT_THROW(directory->getGrainTable(7), yx::CIOError);
    stream->setFault({});
    EXPECT_EQ(infoOf(*directory, 2 * 4 + 1), (Info{5000, 8}));
}

TEST_F(GrainDirectory, WithALimitOfZeroTablesLiveAsLongAsTheirUse) {
    cache = yx::makeObject<CVMDKGrainTableCache>(0);
    yx::P<CVMDKGrainDirectory> const directory = openQuietly(plainFile(3), plainSettings(3));
    yx::P<CVMDKGrainTable> const table = directory->getGrainTable(1);
    ASSERT_NE(table, nullptr);
    EXPECT_EQ(cache->getCachedTableCount(), 0);

    stream->operations().clear();
    directory->setGrainInfo(8, 5, 8);
    Operations expected = tableReads(0, 2);
    expected.push_back({Kind::Write, 12 * 512, 16});
    EXPECT_EQ(takeOperations(), expected);
    EXPECT_EQ(infoOf(*directory, 8), (Info{5, 8}));
}

TEST_F(GrainDirectory, EvictedTableThatIsHeldIsReadAgainWithoutItsChange) {
    cache = yx::makeObject<CVMDKGrainTableCache>(0);
    yx::P<CVMDKGrainDirectory> const directory = openQuietly(plainFile(3), plainSettings(3));
    yx::P<CVMDKGrainTable> held = directory->getGrainTable(1);
    held->setGrainInfo(0, 7, 8);
    stream->operations().clear();
    EXPECT_EQ(infoOf(*directory, 4), (Info{1001, 8}));
    EXPECT_EQ(takeOperations(), tableReads(0, 2));

    held.reset();
    EXPECT_EQ(takeOperations(), (Operations{{Kind::Write, 11 * 512, 16}}));
    EXPECT_EQ(infoOf(*directory, 4), (Info{7, 8}));
}

// --- Through the buffering layer, as in a real file.

/// 64 tables of 512 entries, one behind the other from sector 10 on.
class GrainDirectoryOnFile : public testing::Test {
protected:
    GrainDirectoryOnFile() {
        std::vector<std::uint32_t> positions;
        for (std::uint32_t i = 0; i < 64; ++i)
            positions.push_back(10 + 4 * i);
        file = yx::makeObject<ScriptedStream>(FileImage(10 + 64 * 4).put32(1, positions).bytes());
        stream = yx::makeObject<yx::COptimizingIOStream>(file.get());
        directory = yx::makeObject<CVMDKGrainDirectory>(stream.get(), yx::IIOStream::ReadWrite, 1,
                                                        0, __int64{64} * 512 * 128, 128, 512, false,
                                                        cache.get());
        file->operations().clear();
    }

    yx::P<CVMDKGrainTableCache> cache = yx::makeObject<CVMDKGrainTableCache>();
    yx::P<ScriptedStream> file;
    yx::P<yx::COptimizingIOStream> stream;
    yx::P<CVMDKGrainDirectory> directory;
};

TEST_F(GrainDirectoryOnFile, RunOfNeighbouringTablesTakesFewReads) {
    directory->getGrainTable(32);
    EXPECT_LE(file->operations().size(), 3U);
}

TEST_F(GrainDirectoryOnFile, NeighbouringChangedTablesTakeFewWrites) {
    for (int table = 0; table < 64; ++table)
        directory->setGrainInfo(table * 512, 1000 + table, 128);
    file->operations().clear();
    directory->flushChangesToStream();
    stream->flush();
    EXPECT_LE(file->operationsOf(Kind::Write).size(), 2U);
    EXPECT_EQ(slice(file->content(), (10 + 4 * 63) * 512, 4), (Bytes{0x27, 0x04, 0, 0}));
}

// --- Flushing and the end.

TEST_F(GrainDirectory, FlushWritesChangedTablesInRisingIndex) {
    yx::P<CVMDKGrainDirectory> const directory = openFile(plainFile(40), plainSettings(40));
    for (int const table : {35, 2, 17})
        directory->setGrainInfo(table * 4, 5, 8);
    stream->operations().clear();
    directory->flushChangesToStream();
    EXPECT_EQ(takeOperations(), (Operations{{Kind::Write, 12 * 512, 16},
                                            {Kind::Write, 27 * 512, 16},
                                            {Kind::Write, 45 * 512, 16}}));
    directory->flushChangesToStream();
    EXPECT_EQ(takeOperations(), Operations{});
}

TEST_F(GrainDirectory, FailedFlushPassesAndIsTriedAgain) {
    yx::P<CVMDKGrainDirectory> const directory = openFile(plainFile(3), plainSettings(3));
    for (int const grain : {0, 4, 8})
        directory->setGrainInfo(grain, 5, 8);
    stream->operations().clear();
    stream->setFault([](Operation const& operation) { return operation.position == 11 * 512; });
    EXPECT_TRUE(test_support::throwsIOError(yx::CIOError::IOFailure, "Scripted failure.",
                                            {{"uri", "test:/stream"}},
                                            [&] { directory->flushChangesToStream(); }));
    EXPECT_EQ(takeOperations(),
              (Operations{{Kind::Write, 10 * 512, 16}, {Kind::Write, 11 * 512, 16}}));
    stream->setFault({});
    directory->flushChangesToStream();
    EXPECT_EQ(takeOperations(),
              (Operations{{Kind::Write, 11 * 512, 16}, {Kind::Write, 12 * 512, 16}}));
}

TEST_F(GrainDirectory, EndOfADirectoryFlushesItsTablesAndTakesThemOutOfTheCache) {
    yx::P<CVMDKGrainDirectory> directory = openFile(plainFile(3), plainSettings(3));
    directory->setGrainInfo(8, 5, 8);
    directory->setGrainInfo(0, 6, 8);
    yx::P<ScriptedStream> const otherStream = yx::makeObject<ScriptedStream>(plainFile(5).bytes());
    yx::P<CVMDKGrainDirectory> const other = open(*otherStream, *cache, plainSettings(5));
    other->setGrainInfo(0, 7, 8);
    ASSERT_EQ(cache->getCachedTableCount(), 8);

    stream->operations().clear();
    directory.reset();
    EXPECT_EQ(takeOperations(),
              (Operations{{Kind::Write, 10 * 512, 16}, {Kind::Write, 12 * 512, 16}}));
    EXPECT_EQ(cache->getCachedTableCount(), 5);
    EXPECT_EQ(otherStream->operationsOf(Kind::Write), Operations{});
}

TEST_F(GrainDirectory, FailedFlushAtTheEndIsReportedAndLeavesTheTablesInTheCache) {
    test_support::IgnoredExceptionCapture ignored;
    yx::P<CVMDKGrainDirectory> directory = openFile(plainFile(3), plainSettings(3));
    directory->setGrainInfo(4, 5, 8);
    directory->setGrainInfo(8, 6, 8);
    stream->operations().clear();
    stream->failOnce(Kind::Write);
    directory.reset();

    EXPECT_EQ(ignored.entries(),
              (IgnoredExceptions{{"kelm::CVMDKGrainDirectory", "Scripted failure.", true}}));
    EXPECT_EQ(takeOperations(), (Operations{{Kind::Write, 11 * 512, 16}}));
    EXPECT_EQ(cache->getCachedTableCount(), 3);

    // They flush themselves when they leave.
    cache->clear();
    EXPECT_EQ(stream->operationsOf(Kind::Write),
              (Operations{{Kind::Write, 11 * 512, 16}, {Kind::Write, 12 * 512, 16}}));
    EXPECT_EQ(ignored.entries().size(), 1U);
}

TEST_F(GrainDirectory, NewDirectoryTakesNothingFromADeadOneOfItsAddress) {
    test_support::IgnoredExceptionCapture ignored;
    // One place for both, as the heap may well choose it.
    std::optional<CVMDKGrainDirectory> directory;
    auto const openHere = [&](ScriptedStream& file) {
        directory.emplace(&file, yx::IIOStream::ReadWrite, 1, 0, 96, 8, 4, false, cache.get());
    };
    auto const deadFile = yx::makeObject<ScriptedStream>(plainFile(3).bytes());
    openHere(*deadFile);
    directory->setGrainInfo(4, 5, 8);
    deadFile->failOnce(Kind::Write);
    directory.reset();
    ASSERT_EQ(cache->getCachedTableCount(), 3) << "left by the failed flush";
    deadFile->operations().clear();

    auto const newFile = yx::makeObject<ScriptedStream>(
        FileImage(13).put32(1, {10, 11, 12}).put32(11, {55}).bytes());
    openHere(*newFile);
    EXPECT_EQ(cache->getCachedTableCount(), 0);
    EXPECT_EQ(deadFile->operations(), (Operations{{Kind::Write, 11 * 512, 16}}))
        << "a table that leaves the cache flushes itself";
    EXPECT_EQ(infoOf(*directory, 4), (Info{55, 8}));
    directory->setGrainInfo(4, 66, 8);
    directory->flushChangesToStream();
    EXPECT_EQ(slice(newFile->content(), 11 * 512, 4), (Bytes{66, 0, 0, 0}));
    EXPECT_EQ(slice(deadFile->content(), 11 * 512, 4), (Bytes{5, 0, 0, 0}));
}

TEST_F(GrainDirectory, TwoDirectoriesDoNotMeetInOneCache) {
    yx::P<CVMDKGrainDirectory> const one = openFile(plainFile(3), plainSettings(3));
    yx::P<ScriptedStream> const otherStream = yx::makeObject<ScriptedStream>(
        FileImage(14).put32(1, {10, 11, 12}).put32(10, {55}).bytes());
    yx::P<CVMDKGrainDirectory> const other = open(*otherStream, *cache, plainSettings(3));
    EXPECT_EQ(infoOf(*one, 0), (Info{1000, 8}));
    EXPECT_EQ(infoOf(*other, 0), (Info{55, 8}));
    EXPECT_EQ(cache->getCachedTableCount(), 6);
    one->setGrainInfo(0, 9, 8);
    EXPECT_EQ(infoOf(*other, 0), (Info{55, 8}));
    other->flushChangesToStream();
    EXPECT_EQ(stream->operationsOf(Kind::Write), Operations{});
}

} // namespace

} // namespace grain_directory_test

} // namespace kelm

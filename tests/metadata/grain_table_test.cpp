#include "kelm/metadata/grain_table.h"

#include <limits>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/metadata/file_image.h"
#include "tests/support/bytes.h"
#include "tests/support/expect_error.h"
#include "tests/support/ignored_exception_capture.h"
#include "tests/support/scripted_stream.h"

namespace kelm {

namespace grain_table_test {

namespace {

using metadata_test::FileImage;
using test_support::Bytes;
using test_support::ScriptedStream;
using test_support::slice;
using Kind = ScriptedStream::Kind;
using IgnoredExceptions = std::vector<test_support::IgnoredExceptionCapture::Entry>;
using Operations = std::vector<ScriptedStream::Operation>;

constexpr auto kReadOnly = yx::IIOStream::ReadOnly;
constexpr auto kReadWrite = yx::IIOStream::ReadWrite;

constexpr __int64 kGrainSizeSectors = 128;
constexpr __int64 kTablePos = 2;
constexpr __int64 kRedundantPos = 3;
constexpr __int64 kSlotPos = 4;
constexpr int kEntryCount = 4;

struct Info {
    __int64 posSectors;
    __int64 slotSizeSectors;

    bool operator==(Info const&) const = default;
};

std::ostream& operator<<(std::ostream& stream, Info const& info) {
    return stream << info.posSectors << " of " << info.slotSizeSectors;
}

/// A table of four entries at sector 2, room for its redundant copy at sector 3, and a slot-size
/// table at sector 4.
class GrainTable : public testing::Test {
protected:
    yx::P<CVMDKGrainTable> open(yx::IIOStream::Access access, __int64 redundantPos,
                                __int64 slotPos) {
        return yx::makeObject<CVMDKGrainTable>(stream.get(), access, kGrainSizeSectors, kTablePos,
                                               redundantPos, slotPos, kEntryCount);
    }

    yx::P<CVMDKGrainTable> openTracked(yx::IIOStream::Access access = kReadWrite) {
        return open(access, kRedundantPos, kSlotPos);
    }

    yx::P<CVMDKGrainTable> openUntracked(yx::IIOStream::Access access = kReadWrite) {
        return open(access, kRedundantPos, 0);
    }

    static Info infoOf(CVMDKGrainTable& table, __int64 index) {
        Info info{-1, -1};
        table.getGrainInfo(index, info.posSectors, info.slotSizeSectors);
        return info;
    }

    Operations writes() const { return stream->operationsOf(Kind::Write); }

    Bytes fileBytes(std::size_t position, std::size_t sizeBytes) const {
        return slice(stream->content(), position, sizeBytes);
    }

    yx::P<ScriptedStream> stream =
        yx::makeObject<ScriptedStream>(FileImage(6)
                                           .put32(2, {0, 1, 0x01020304, 0xFFFFFFFF})
                                           .put32(3, {7, 7, 7, 7})
                                           .put16(4, {9, 0, 0x0203, 0xFFFF})
                                           .bytes());
};

TEST_F(GrainTable, LoadsTableAndThenSlotSizesAndNeverTheRedundantTable) {
    openTracked();
    EXPECT_EQ(stream->operations(), (Operations{{Kind::Read, 1024, 16}, {Kind::Read, 2048, 8}}));
}

TEST_F(GrainTable, LoadsNoSlotSizesWithoutAPositionForThem) {
    for (__int64 const slotPos : {0, -1}) {
        stream->operations().clear();
        yx::P<CVMDKGrainTable> const table = open(kReadWrite, 0, slotPos);
        EXPECT_EQ(stream->operations(), (Operations{{Kind::Read, 1024, 16}}));
        EXPECT_FALSE(table->getSlotSizeTrackingEnabled());
    }
    EXPECT_TRUE(openTracked()->getSlotSizeTrackingEnabled());
}

TEST_F(GrainTable, EntryOfZeroReportsSlotSizeZero) {
    EXPECT_EQ(infoOf(*openTracked(), 0), (Info{0, 0}));
    EXPECT_EQ(infoOf(*openUntracked(), 0), (Info{0, 0}));
}

TEST_F(GrainTable, EntryReportsItsSlotSizeWhereSlotSizesAreTracked) {
    yx::P<CVMDKGrainTable> const table = openTracked();
    EXPECT_EQ(infoOf(*table, 1), (Info{1, 0}));
    EXPECT_EQ(infoOf(*table, 2), (Info{0x01020304, 0x0203}));
    EXPECT_EQ(infoOf(*table, 3), (Info{0xFFFFFFFF, 0xFFFF}));
}

TEST_F(GrainTable, EntryReportsTheGrainSizeWhereSlotSizesAreNotTracked) {
    yx::P<CVMDKGrainTable> const table = openUntracked();
    EXPECT_EQ(infoOf(*table, 1), (Info{1, 128}));
    EXPECT_EQ(infoOf(*table, 2), (Info{0x01020304, 128}));
    EXPECT_EQ(infoOf(*table, 3), (Info{0xFFFFFFFF, 128}));
}

TEST_F(GrainTable, IndexOutsideTheTableIsRefused) {
    for (yx::IIOStream::Access const access : {kReadOnly, kReadWrite}) {
        yx::P<CVMDKGrainTable> const table = openTracked(access);
        struct {
            __int64 index;
            char const* message;
        } const cases[] = {
            {-1, "Invalid grain index: -1"},
            {4, "Invalid grain index: 4"},
            {0x100000000, "Invalid grain index: 4294967296"},
            {std::numeric_limits<__int64>::min(), "Invalid grain index: -9223372036854775808"},
        };
        for (auto const& c : cases) {
            EXPECT_TRUE(test_support::throwsInvalidArg("CVMDKGrainTable::getGrainInfo", c.message,
                                                       {{"uri", "test:/stream"}},
                                                       [&] { infoOf(*table, c.index); }));
            // The slot size is bad too: the index goes first.
            EXPECT_TRUE(test_support::throwsInvalidArg(
                "CVMDKGrainTable::setGrainInfo", c.message, {{"uri", "test:/stream"}},
                [&] { table->setGrainInfo(c.index, 5, 0); }));
        }
    }
}

TEST_F(GrainTable, SlotSizeOtherThanTheGrainSizeIsRefusedWhereSlotSizesAreNotTracked) {
    struct {
        __int64 slotSizeSectors;
        char const* message;
    } const cases[] = {
        {0, "Invalid grain slot size - it must equal the grain size (slot size: 0, grain size: "
            "128)"},
        {-1, "Invalid grain slot size - it must equal the grain size (slot size: -1, grain size: "
             "128)"},
        {129, "Invalid grain slot size - it must equal the grain size (slot size: 129, grain "
              "size: 128)"},
    };
    for (yx::IIOStream::Access const access : {kReadOnly, kReadWrite}) {
        yx::P<CVMDKGrainTable> const table = openUntracked(access);
        for (auto const& c : cases) {
            EXPECT_TRUE(test_support::throwsInvalidArg(
                "CVMDKGrainTable::setGrainInfo", c.message, {{"uri", "test:/stream"}},
                [&] { table->setGrainInfo(2, 5, c.slotSizeSectors); }));
        }
        EXPECT_EQ(infoOf(*table, 2), (Info{0x01020304, 128}));
        EXPECT_FALSE(table->hasUnflushedChanges());
    }
}

TEST_F(GrainTable, SlotSizeBelowOneIsRefusedAlsoForAnEmptyEntry) {
    for (yx::IIOStream::Access const access : {kReadOnly, kReadWrite}) {
        yx::P<CVMDKGrainTable> const table = openTracked(access);
        EXPECT_TRUE(test_support::throwsInvalidArg("CVMDKGrainTable::setGrainInfo",
                                                   "Invalid grain slot size.",
                                                   {{"uri", "test:/stream"},
                                                    {"slotSizeSectors", "0"},
                                                    {"grainSizeSectors", "128"},
                                                    {"posSectors", "5"}},
                                                   [&] { table->setGrainInfo(2, 5, 0); }));
        EXPECT_TRUE(test_support::throwsInvalidArg("CVMDKGrainTable::setGrainInfo",
                                                   "Invalid grain slot size.",
                                                   {{"uri", "test:/stream"},
                                                    {"slotSizeSectors", "-3"},
                                                    {"grainSizeSectors", "128"},
                                                    {"posSectors", "0"}},
                                                   [&] { table->setGrainInfo(2, 0, -3); }));
        EXPECT_EQ(infoOf(*table, 2), (Info{0x01020304, 0x0203}));
        EXPECT_FALSE(table->hasUnflushedChanges());
    }
}

TEST_F(GrainTable, OnlyReadAndWriteAccessMaySet) {
    constexpr auto kNeither = static_cast<yx::IIOStream::Access>(2);
    for (yx::IIOStream::Access const access : {kReadOnly, kNeither}) {
        yx::P<CVMDKGrainTable> const table = openTracked(access);
        EXPECT_TRUE(test_support::throwsError(
            "Internal error: CVMDKGrainTable::setGrainInfo was called, but the table was not "
            "opened for writing.",
            {}, [&] { table->setGrainInfo(2, 0x01020304, 0x0203); }));
        EXPECT_FALSE(table->hasUnflushedChanges());
    }
}

TEST_F(GrainTable, SetEntryIsReportedBack) {
    yx::P<CVMDKGrainTable> const table = openTracked();
    table->setGrainInfo(1, 77, 3);
    EXPECT_EQ(infoOf(*table, 1), (Info{77, 3}));
    EXPECT_EQ(infoOf(*table, 2), (Info{0x01020304, 0x0203}));
    EXPECT_TRUE(table->hasUnflushedChanges());
    EXPECT_EQ(writes(), Operations{});
}

TEST_F(GrainTable, UsageCountsGrainsWithDataAndTheirSlots) {
    yx::P<CVMDKGrainTable> const tracked = openTracked();
    yx::P<CVMDKGrainTable> const untracked = openUntracked();
    for (int i = 0; i < kEntryCount; ++i) {
        tracked->setGrainInfo(i, 0, 1);
        untracked->setGrainInfo(i, 0, kGrainSizeSectors);
    }
    EXPECT_EQ(tracked->calcUsage(kEntryCount).grains, 0);
    EXPECT_EQ(tracked->calcUsage(kEntryCount).slotSectors, 0);

    tracked->setGrainInfo(0, 0, 9); // a slot size without data does not count
    tracked->setGrainInfo(1, 1, 5);
    tracked->setGrainInfo(3, 0xFFFFFFFF, 130);
    EXPECT_EQ(tracked->calcUsage(kEntryCount).grains, 2);
    EXPECT_EQ(tracked->calcUsage(kEntryCount).slotSectors, 135);
    EXPECT_EQ(tracked->calcUsage(3).slotSectors, 5);
    EXPECT_EQ(tracked->calcUsage(0).grains, 0);

    untracked->setGrainInfo(2, 7, kGrainSizeSectors);
    EXPECT_EQ(untracked->calcUsage(kEntryCount).grains, 1);
    EXPECT_EQ(untracked->calcUsage(kEntryCount).slotSectors, kGrainSizeSectors);
}

TEST_F(GrainTable, PositionZeroWithAPositiveSlotSizeClearsTheEntry) {
    yx::P<CVMDKGrainTable> const tracked = openTracked();
    tracked->setGrainInfo(2, 0, 5);
    EXPECT_EQ(infoOf(*tracked, 2), (Info{0, 0}));
    tracked->flushChangesToStream();
    EXPECT_EQ(fileBytes(1024 + 8, 4), (Bytes{0, 0, 0, 0}));
    EXPECT_EQ(fileBytes(2048 + 4, 2), (Bytes{5, 0}));

    yx::P<CVMDKGrainTable> const untracked = openUntracked();
    untracked->setGrainInfo(3, 0, 128);
    EXPECT_EQ(infoOf(*untracked, 3), (Info{0, 0}));
}

TEST_F(GrainTable, UnchangedValuesNeedNoFlush) {
    yx::P<CVMDKGrainTable> const tracked = openTracked();
    tracked->setGrainInfo(2, 0x01020304, 0x0203);
    tracked->setGrainInfo(2, 0x01020304, 0x0203);
    EXPECT_FALSE(tracked->hasUnflushedChanges());

    tracked->setGrainInfo(0, 50, 6);
    tracked->flushChangesToStream();
    tracked->setGrainInfo(0, 50, 6);
    EXPECT_FALSE(tracked->hasUnflushedChanges());

    yx::P<CVMDKGrainTable> const untracked = openUntracked();
    untracked->setGrainInfo(3, 0xFFFFFFFF, 128);
    EXPECT_FALSE(untracked->hasUnflushedChanges());
}

TEST_F(GrainTable, SurplusBitsAreDroppedAndStayDifferent) {
    yx::P<CVMDKGrainTable> const table = openTracked();
    for (int i = 0; i < 2; ++i) {
        table->setGrainInfo(1, 0x500000006, 0x70008);
        EXPECT_EQ(infoOf(*table, 1), (Info{6, 8}));
        EXPECT_TRUE(table->hasUnflushedChanges());
        table->flushChangesToStream();
        EXPECT_EQ(writes().size(), 3U * static_cast<unsigned int>(i + 1));
    }
}

TEST_F(GrainTable, FlushWritesTableRedundantCopyAndSlotSizesInThisOrder) {
    yx::P<CVMDKGrainTable> const table = openTracked();
    table->setGrainInfo(1, 0x0A0B0C0D, 0x0E0F);
    table->flushChangesToStream();
    EXPECT_EQ(
        writes(),
        (Operations{{Kind::Write, 1024, 16}, {Kind::Write, 1536, 16}, {Kind::Write, 2048, 8}}));
    Bytes const entries{0,    0,    0,    0,    0x0D, 0x0C, 0x0B, 0x0A,
                        0x04, 0x03, 0x02, 0x01, 0xFF, 0xFF, 0xFF, 0xFF};
    EXPECT_EQ(fileBytes(1024, 16), entries);
    EXPECT_EQ(fileBytes(1536, 16), entries);
    EXPECT_EQ(fileBytes(2048, 8), (Bytes{9, 0, 0x0F, 0x0E, 0x03, 0x02, 0xFF, 0xFF}));
    EXPECT_FALSE(table->hasUnflushedChanges());
}

TEST_F(GrainTable, FlushWritesOneCopyWithoutARedundantTable) {
    __int64 posSectors = 40;
    for (__int64 const redundantPos : {0, -5}) {
        stream->operations().clear();
        yx::P<CVMDKGrainTable> const table = open(kReadWrite, redundantPos, 0);
        table->setGrainInfo(1, ++posSectors, 128);
        table->flushChangesToStream();
        EXPECT_EQ(writes(), (Operations{{Kind::Write, 1024, 16}}));
    }
}

TEST_F(GrainTable, FlushWritesOnlyTheAreaThatChanged) {
    yx::P<CVMDKGrainTable> const table = openTracked();
    table->setGrainInfo(2, 0x01020304, 7);
    table->flushChangesToStream();
    EXPECT_EQ(writes(), (Operations{{Kind::Write, 2048, 8}}));

    stream->operations().clear();
    table->setGrainInfo(2, 0x01020305, 7);
    table->flushChangesToStream();
    EXPECT_EQ(writes(), (Operations{{Kind::Write, 1024, 16}, {Kind::Write, 1536, 16}}));

    stream->operations().clear();
    table->flushChangesToStream();
    EXPECT_EQ(stream->operations(), Operations{});
}

TEST_F(GrainTable, FailedFlushOfTheTableIsTriedAgain) {
    yx::P<CVMDKGrainTable> const table = openTracked();
    table->setGrainInfo(1, 77, 3);
    for (__int64 const failingPosition : {1024, 1536}) {
        stream->operations().clear();
        stream->setFault([&](auto const& operation) {
            return operation.kind == Kind::Write && operation.position == failingPosition;
        });
        EXPECT_TRUE(test_support::throwsIOError(yx::CIOError::IOFailure, "Scripted failure.",
                                                {{"uri", "test:/stream"}},
                                                [&] { table->flushChangesToStream(); }));
        EXPECT_EQ(writes().back(), (ScriptedStream::Operation{Kind::Write, failingPosition, 16}));
        EXPECT_TRUE(table->hasUnflushedChanges());
    }
    stream->setFault({});
    stream->operations().clear();
    table->flushChangesToStream();
    EXPECT_EQ(
        writes(),
        (Operations{{Kind::Write, 1024, 16}, {Kind::Write, 1536, 16}, {Kind::Write, 2048, 8}}));
    EXPECT_FALSE(table->hasUnflushedChanges());
}

TEST_F(GrainTable, FailedFlushOfTheSlotSizesIsTriedAgainAlone) {
    yx::P<CVMDKGrainTable> const table = openTracked();
    table->setGrainInfo(1, 77, 3);
    stream->setFault([](auto const& operation) {
        return operation.kind == Kind::Write && operation.position == 2048;
    });
    EXPECT_TRUE(test_support::throwsIOError(yx::CIOError::IOFailure, "Scripted failure.",
                                            {{"uri", "test:/stream"}},
                                            [&] { table->flushChangesToStream(); }));
    EXPECT_TRUE(table->hasUnflushedChanges());

    stream->setFault({});
    stream->operations().clear();
    table->flushChangesToStream();
    EXPECT_EQ(writes(), (Operations{{Kind::Write, 2048, 8}}));
    EXPECT_FALSE(table->hasUnflushedChanges());
}

TEST_F(GrainTable, LastReleaseFlushes) {
    yx::P<CVMDKGrainTable> table = openTracked();
    yx::P<CVMDKGrainTable> holder = table;
    table->setGrainInfo(1, 77, 3);
    table.reset();
    EXPECT_EQ(writes(), Operations{});
    holder.reset();
    EXPECT_EQ(fileBytes(1024 + 4, 4), (Bytes{77, 0, 0, 0}));
    EXPECT_EQ(fileBytes(1536 + 4, 4), (Bytes{77, 0, 0, 0}));
    EXPECT_EQ(fileBytes(2048 + 2, 2), (Bytes{3, 0}));
}

TEST_F(GrainTable, FailureInTheLastReleaseIsReportedAndSwallowed) {
    test_support::IgnoredExceptionCapture ignored;
    yx::P<CVMDKGrainTable> table = openTracked();
    table->setGrainInfo(1, 77, 3);
    stream->failOnce(Kind::Write);
    table.reset();
    EXPECT_EQ(ignored.entries(),
              (IgnoredExceptions{{"kelm::CVMDKGrainTable", "Scripted failure.", true}}));
    EXPECT_EQ(writes(), (Operations{{Kind::Write, 1024, 16}}));
}

TEST_F(GrainTable, TableThatExceedsTheFileFailsWithTheErrorOfTheStream) {
    EXPECT_TRUE(test_support::throwsIOError(
        yx::CIOError::UnexpectedEnd, "Unexpected end of the scripted stream.",
        {{"uri", "test:/stream"}},
        [&] { yx::makeObject<CVMDKGrainTable>(stream.get(), kReadOnly, 128, 5, 0, 0, 129); }));
    EXPECT_TRUE(test_support::throwsIOError(
        yx::CIOError::UnexpectedEnd, "Unexpected end of the scripted stream.",
        {{"uri", "test:/stream"}},
        [&] { yx::makeObject<CVMDKGrainTable>(stream.get(), kReadOnly, 128, 2, 0, 6, 4); }));
}

TEST_F(GrainTable, SizesAndPositionsThatCannotBeAreCorruptData) {
    constexpr __int64 kMax = std::numeric_limits<__int64>::max();
    struct {
        __int64 tablePos;
        __int64 slotPos;
        int entryCount;
        char const* message;
    } const cases[] = {
        {2, 0, -1, "Invalid grain table size in VMDK sparse extent: -1"},
        {2, 0, 1048577, "Invalid grain table size in VMDK sparse extent: 1048577"},
        {2, 0, 2147483647, "Invalid grain table size in VMDK sparse extent: 2147483647"},
        {-1, 0, 4, "Invalid grain table position in VMDK sparse extent: -1"},
        {kMax, 0, 4, "Invalid grain table position in VMDK sparse extent: 9223372036854775807"},
        {2, kMax, 4, "Invalid slot size table position in VMDK sparse extent: 9223372036854775807"},
    };
    for (auto const& c : cases) {
        EXPECT_TRUE(test_support::throwsIOError(
            yx::CIOError::CorruptData, c.message, {{"uri", "test:/stream"}}, [&] {
                yx::makeObject<CVMDKGrainTable>(stream.get(), kReadOnly, 128, c.tablePos, 0,
                                                c.slotPos, c.entryCount);
            }));
    }
}

TEST_F(GrainTable, TableWithoutEntriesRefusesEveryIndex) {
    yx::P<CVMDKGrainTable> const table =
        yx::makeObject<CVMDKGrainTable>(stream.get(), kReadOnly, 128, 2, 0, 4, 0);
    EXPECT_FALSE(table->getSlotSizeTrackingEnabled());
    EXPECT_TRUE(test_support::throwsInvalidArg("CVMDKGrainTable::getGrainInfo",
                                               "Invalid grain index: 0", {{"uri", "test:/stream"}},
                                               [&] { infoOf(*table, 0); }));
}

} // namespace

} // namespace grain_table_test

} // namespace kelm

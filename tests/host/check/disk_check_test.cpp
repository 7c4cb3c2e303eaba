#include "host/check/disk_check.h"

#include <gmock/gmock.h>

#include "tests/host/host_fixture.h"
#include "tests/support/foreign_chain.h"
#include "tests/support/recording_file_system.h"
#include "tests/support/slot_sizes.h"

using kelm::host::CancelFlag;
using kelm::host::CancelledError;
using kelm::host::checkDisk;
using kelm::host::WorkOptions;
using testing::AllOf;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

namespace test_support {
namespace {

constexpr std::size_t kSector = 512;

class DiskCheckTest : public HostTest {
protected:
    /// The findings, in lines of file and text, in their order.
    std::vector<std::string> check(std::string const& name = "disk.vmdk", char const* password = "",
                                   int threads = 3) {
        std::vector<std::string> findings;
        WorkOptions options;
        options.threads = threads;
        __int64 const count =
            checkDisk(files.get(), uriOf(name), password, options,
                      [&](yx::CURI const& file, std::string const& text) {
                          findings.push_back(file.getName().toStdString() + ": " + text);
                      });
        EXPECT_EQ(static_cast<__int64>(findings.size()), count);
        return findings;
    }

    void makeDisk(DiskKind const& kind, std::string const& name = "disk.vmdk",
                  std::string const& parent = "") {
        std::unique_ptr<SafeDisk> const disk = createSafe(kind, name, parent);
        writeTo(*disk, 0, mixedContent());
        writeTo(*disk, 7 * kGrainBytes, pattern(kGrainBytes, 3));
        disk->flush();
    }

    Bytes bytesOf(std::string const& name) { return toBytes(files->getFile(uriOf(name))); }

    void putBytes(std::string const& name, Bytes const& bytes) {
        files->putFile(uriOf(name), toBuffer(bytes));
    }

    void patch(std::string const& name, std::size_t position, Bytes const& bytes) {
        Bytes file = bytesOf(name);
        std::copy(bytes.begin(), bytes.end(), file.begin() + static_cast<std::ptrdiff_t>(position));
        putBytes(name, file);
    }

    std::size_t number(std::string const& name, std::size_t position, int bytes) {
        Bytes const file = bytesOf(name);
        std::size_t value = 0;
        for (int i = bytes; i-- > 0;)
            value = value << 8 | file[position + static_cast<std::size_t>(i)];
        return value;
    }

    std::size_t directory(std::string const& name) { return number(name, 56, 8) * kSector; }
    std::size_t firstTable(std::string const& name) {
        return number(name, directory(name), 4) * kSector;
    }
    std::size_t grain(std::string const& name, std::size_t index) {
        return number(name, firstTable(name) + index * 4, 4) * kSector;
    }
};

TEST_F(DiskCheckTest, FindsNothingWrongInSoundDisksOfEveryKind) {
    for (DiskKind const& kind : allDiskKinds()) {
        SCOPED_TRACE(kind.name);
        std::string const name = std::string(kind.name) + ".vmdk";
        std::string const child = std::string(kind.name) + "-child.vmdk";
        makeDisk(kind, name);
        {
            std::unique_ptr<SafeDisk> const disk = createSafe(kind, child, name);
            writeTo(*disk, 5 * kGrainBytes + 1, textPattern(100000, 4));
            disk->writeZeros(0, kGrainBytes);
        }
        for (int const threads : {1, 2, 5})
            EXPECT_THAT(check(child, kind.password, threads), IsEmpty());
    }
}

TEST_F(DiskCheckTest, ReadsDisksThatEndWithinAGrain) {
    makeDisk({}, "parent.vmdk");
    for (bool const compressed : {false, true}) {
        putShortChild(compressed);
        // The extent has whole grains. That the disk uses less of it is the only finding.
        EXPECT_THAT(check("child.vmdk"),
                    ElementsAre("child-s00000.vmdk: the header has a capacity of 384 sectors, the "
                                "descriptor says 300"));
    }
}

TEST_F(DiskCheckTest, ReportsBrokenGrainsInTheirOrder) {
    makeDisk({.compressed = true});
    // The data, the size of the data, the data.
    patch("disk.vmdk", grain("disk.vmdk", 0) + 12, Bytes(8, 0xFF));
    patch("disk.vmdk", grain("disk.vmdk", 1) + 8, Bytes{0xFF, 0xFF, 0xFF, 0x7F});
    patch("disk.vmdk", grain("disk.vmdk", 7) + 12, Bytes(8, 0xFF));
    patch("disk.vmdk", grain("disk.vmdk", 10) + 12, Bytes(8, 0xFF));
    for (int const threads : {1, 4}) {
        EXPECT_THAT(
            check("disk.vmdk", "", threads),
            ElementsAre(
                "disk.vmdk: the record of grain 1 does not fit its slot (bytes: "
                "65536-131071)",
                AllOf(StartsWith("disk.vmdk: grain 0: "), EndsWith(" (bytes: 0-65535)")),
                AllOf(StartsWith("disk.vmdk: grain 7: "), EndsWith(" (bytes: 458752-524287)")),
                AllOf(StartsWith("disk.vmdk: grain 10: "), EndsWith(" (bytes: 655360-720895)"))));
    }
}

TEST_F(DiskCheckTest, ReportsMissingSlotsAndReadsTheirGrains) {
    makeDisk({.compressed = true});
    constexpr char kWords[] = " has no slot yet, as a power cut can leave it; it is read by its "
                              "record, and the next writer gives it one";
    setSlotSize(files.get(), uriOf("disk.vmdk"), 1, 0);
    setSlotSize(files.get(), uriOf("disk.vmdk"), 2, 0);
    std::string const missing = "disk.vmdk: grain 1" + std::string(kWords) +
                                "; the same of 1 more, up to grain 2 (bytes: 65536-196607)";
    EXPECT_THAT(check(), ElementsAre(missing));
    patch("disk.vmdk", grain("disk.vmdk", 2) + 12, Bytes(8, 0xFF));
    EXPECT_THAT(check(), ElementsAre(missing, AllOf(StartsWith("disk.vmdk: grain 2: "),
                                                    EndsWith(" (bytes: 131072-196607)"))));
    openSafe();
    EXPECT_THAT(check(), ElementsAre(StartsWith("disk.vmdk: grain 2: ")));
}

TEST_F(DiskCheckTest, FindsABrokenGrainInAnExtentOfSmallerOnes) {
    makeForeignDisk(*files, yx::CURI("mem:///disks"),
                    {"disk.vmdk", {{128, 128, true}, {128, 8, true}}});
    DiskTest::writeAt(*open(kReadWrite), 65536 + 3 * 4096, pattern(4096, 1));
    patch("disk-s00001.vmdk", grain("disk-s00001.vmdk", 3) + 12, Bytes(8, 0xFF));
    EXPECT_THAT(check(),
                ElementsAre("disk-s00001.vmdk: the header has a grain size of 8 sectors, the disk "
                            "has one of 128",
                            AllOf(StartsWith("disk-s00001.vmdk: grain 4: "),
                                  EndsWith(" (bytes: 77824-81919)"))));
}

TEST_F(DiskCheckTest, NamesTheFileThatHoldsABrokenGrainAndTellsOfEachFileByItself) {
    DiskKind const kind{.compressed = true, .fileSizeLimit = kCompressedSplitLimit};
    std::vector<kelm::host::DiskExtent> extents;
    {
        std::unique_ptr<SafeDisk> const disk = createSafe(kind);
        extents = disk->listExtents();
        ASSERT_LE(2U, extents.size());
        // The last grain of the first file and the first of the next are neighbours.
        writeTo(*disk, extents[0].endBytes - kGrainBytes, pattern(2 * kGrainBytes, 1));
    }
    std::size_t const last = static_cast<std::size_t>(extents[0].endBytes / kGrainBytes) - 1;
    patch("disk.vmdk", grain("disk.vmdk", last) + 12, Bytes(8, 0xFF));
    patch("disk-s00001.vmdk", grain("disk-s00001.vmdk", 0) + 12, Bytes(8, 0xFF));
    auto const finding = [](std::string const& file, std::size_t index) {
        return AllOf(StartsWith(file + ": grain " + std::to_string(index) + ": "),
                     EndsWith(" (bytes: " + std::to_string(index * kGrainBytes) + "-" +
                              std::to_string((index + 1) * kGrainBytes - 1) + ")"));
    };
    for (int const threads : {1, 4}) {
        EXPECT_THAT(check("disk.vmdk", "", threads),
                    ElementsAre(finding("disk.vmdk", last), finding("disk-s00001.vmdk", last + 1)));
    }
}

TEST_F(DiskCheckTest, TheBytesOfAShortLastGrainEndWithTheDisk) {
    makeDisk({}, "parent.vmdk");
    putShortChild(true);
    writeTo(*openSafe("child.vmdk"), 2 * kGrainBytes, pattern(44 * kSector, 1));
    patch("child-s00000.vmdk", grain("child-s00000.vmdk", 2) + 12, Bytes(8, 0xFF));
    EXPECT_THAT(check("child.vmdk"),
                ElementsAre(HasSubstr("the header has a capacity of 384 sectors"),
                            AllOf(StartsWith("child-s00000.vmdk: grain 2: "),
                                  EndsWith(" (bytes: 131072-153599)"))));
}

TEST_F(DiskCheckTest, ReportsOnceThatAFileWasCutOff) {
    for (bool const compressed : {false, true}) {
        SCOPED_TRACE(compressed);
        files = yx::makeObject<yx::CMemoryFileSystem>();
        {
            std::unique_ptr<SafeDisk> const disk = createSafe({.compressed = compressed});
            // Not in the order of their places in the file.
            for (__int64 index = 0; index < 128; ++index)
                writeTo(*disk, index * 37 % 128 * kGrainBytes,
                        pattern(kGrainBytes, static_cast<unsigned>(index)));
        }
        // Grain 64 was the 65th to be stored, grain 1 the 46th, and grain 2 the 91st.
        Bytes content = bytesOf("disk.vmdk");
        content.resize(grain("disk.vmdk", 64));
        putBytes("disk.vmdk", content);
        EXPECT_THAT(check(), ElementsAre("disk.vmdk: grain 2 lies outside the file; the same of 63 "
                                         "more, up to grain 127 (bytes: 131072-8388607)"));
    }
}

TEST_F(DiskCheckTest, ReportsOnceThatAStretchOfAFileIsGone) {
    {
        std::unique_ptr<SafeDisk> const disk = createSafe({.compressed = true});
        for (__int64 index = 0; index < 128; ++index)
            writeTo(*disk, index * kGrainBytes, pattern(kGrainBytes, static_cast<unsigned>(index)));
    }
    std::size_t const start = grain("disk.vmdk", 20);
    patch("disk.vmdk", start, Bytes(grain("disk.vmdk", 90) - start, 0));
    EXPECT_THAT(check(), ElementsAre("disk.vmdk: the record of grain 20 names another grain; the "
                                     "same of 69 more, up to grain 89 (bytes: 1310720-5898239)"));
}

TEST_F(DiskCheckTest, ADescriptorThatDiffersFromItsChecksumIsAFinding) {
    makeDisk({});
    Bytes const content = bytesOf("disk.vmdk");
    std::string const text(content.begin(), content.end());
    patch("disk.vmdk", text.find("lsilogic"), Bytes{'L'});
    EXPECT_THAT(check(), ElementsAre("disk.vmdk: the descriptor differs from its checksum: it is "
                                     "damaged, or other software has edited it"));
}

TEST_F(DiskCheckTest, ReportsOnceThatAnExtentFileIsMissing) {
    makeDisk({.fileSizeLimit = kSplitLimit});
    files->deleteFile(uriOf("disk-s00001.vmdk"), false);
    std::vector<std::string> const findings = check();
    ASSERT_EQ(2U, findings.size());
    EXPECT_EQ("disk-s00001.vmdk: the file is missing", findings[0]);
    EXPECT_THAT(findings[1], AllOf(StartsWith("disk-s00001.vmdk: grains 46 to 91 cannot be looked "
                                              "up: "),
                                   EndsWith(" (bytes: 3014656-6029311)")));
}

TEST_F(DiskCheckTest, ReportsOnceThatTablesCannotBeRead) {
    // Four tables, of which the third is nowhere.
    { createSafe({}, "disk.vmdk", "", 4 * 512 * kGrainBytes); }
    patch("disk.vmdk", directory("disk.vmdk") + 8, Bytes{0xFF, 0xFF, 0xFF, 0x7F});
    std::vector<std::string> const findings = check();
    ASSERT_EQ(2U, findings.size()) << testing::PrintToString(findings);
    EXPECT_EQ("disk.vmdk: grain table 2 lies outside the file (bytes: 67108864-100663295)",
              findings[0]);
    // The library reads tables in runs of 32, and none of a run where one is bad.
    EXPECT_THAT(findings[1], AllOf(StartsWith("disk.vmdk: grains 0 to 2047 cannot be looked up: "),
                                   EndsWith(" (bytes: 0-134217727)")));
}

TEST_F(DiskCheckTest, ReportsWhatTheExtentsDisagreeIn) {
    makeDisk({.fileSizeLimit = kSplitLimit});
    std::string const name = "disk-s00002.vmdk";
    patch(name, 20, Bytes{64});
    std::vector<std::string> const findings = check();
    EXPECT_THAT(findings,
                testing::Contains("disk-s00002.vmdk: the header has a grain size of 64 sectors, "
                                  "the disk has one of 128"));
}

TEST_F(DiskCheckTest, ReportsThatAGrainSharesItsPlace) {
    makeDisk({});
    Bytes const table = bytesOf("disk.vmdk");
    auto const at = table.begin() + static_cast<std::ptrdiff_t>(firstTable("disk.vmdk"));
    patch("disk.vmdk", firstTable("disk.vmdk") + 4, Bytes(at, at + 4));
    EXPECT_THAT(check(),
                ElementsAre("disk.vmdk: grain table 0 differs from its redundant copy (bytes: "
                            "0-8388607)",
                            "disk.vmdk: grain 1 shares its place with something else, at sector " +
                                std::to_string(grain("disk.vmdk", 0) / kSector) +
                                " (bytes: 65536-131071)"));
}

TEST_F(DiskCheckTest, ReportsThatATableSharesItsPlaceAndLeavesItsGrains) {
    {
        std::unique_ptr<SafeDisk> const disk =
            createSafe({}, "disk.vmdk", "", 4 * 512 * kGrainBytes);
        writeTo(*disk, 0, pattern(3 * kGrainBytes, 1));
    }
    Bytes const file = bytesOf("disk.vmdk");
    auto const entry = file.begin() + static_cast<std::ptrdiff_t>(directory("disk.vmdk"));
    patch("disk.vmdk", directory("disk.vmdk") + 4, Bytes(entry, entry + 4));
    EXPECT_THAT(check(),
                ElementsAre("disk.vmdk: grain table 1 shares its place with something else "
                            "(bytes: 33554432-67108863)"));
}

TEST_F(DiskCheckTest, ReportsWhatIsWrongWithTheDirectories) {
    makeDisk({});
    Bytes const sound = bytesOf("disk.vmdk");
    patch("disk.vmdk", 56, Bytes{0xFF, 0xFF, 0, 0});
    EXPECT_THAT(check(), ElementsAre(StartsWith("disk.vmdk: the disk cannot be opened: ")));

    putBytes("disk.vmdk", sound);
    patch("disk.vmdk", 48, Bytes{0xFF, 0xFF, 0, 0});
    EXPECT_THAT(check(), ElementsAre(StartsWith("disk.vmdk: the disk cannot be opened: ")));
}

TEST_F(DiskCheckTest, ReportsWhatIsWrongWithTheDirectoriesOfAFurtherExtent) {
    makeDisk({.fileSizeLimit = kSplitLimit});
    patch("disk-s00001.vmdk", 56, Bytes{0xFF, 0xFF, 0, 0});
    EXPECT_THAT(check(), ElementsAre("disk-s00001.vmdk: the grain directory lies outside the file",
                                     AllOf(StartsWith("disk-s00001.vmdk: grains "),
                                           HasSubstr(" cannot be looked up: "))));
    // A capacity whose tables no memory could hold.
    patch("disk-s00001.vmdk", 12, Bytes{0, 0, 0, 0, 0, 0, 0x10, 0});
    std::vector<std::string> const findings = check();
    ASSERT_FALSE(findings.empty());
    EXPECT_THAT(findings[0], StartsWith("disk-s00001.vmdk: the header has a capacity of "));
    EXPECT_EQ("disk-s00001.vmdk: the file is too short for the tables of 35184372088832 grains",
              findings[1]);
}

TEST_F(DiskCheckTest, AHeaderThatIsGoneIsAFinding) {
    makeDisk({.fileSizeLimit = kSplitLimit});
    patch("disk-s00001.vmdk", 0, Bytes(4, 0));
    EXPECT_THAT(check(), ElementsAre("disk-s00001.vmdk: Invalid magic number in VMDK sparse header",
                                     AllOf(StartsWith("disk-s00001.vmdk: grains "),
                                           HasSubstr(" cannot be looked up: "))));
    putBytes("disk-s00001.vmdk", {});
    EXPECT_EQ(2U, check().size());
}

TEST_F(DiskCheckTest, FindsACompressionFieldThatIsUnknownOrContradictsTheFlags) {
    struct Case {
        bool compressed;
        Bytes field;
        char const* finding;
    };
    Case const cases[] = {
        {false, Bytes{1, 0},
         "disk.vmdk: the header names the compression deflate, its flags say that grains are not "
         "compressed"},
        {false, Bytes{2, 0}, "disk.vmdk: the header names an unknown compression: 2"},
        {true, Bytes{0, 0},
         "disk.vmdk: the header names no compression, its flags say that grains are compressed"},
        {true, Bytes{0x34, 0x12}, "disk.vmdk: the header names an unknown compression: 4660"},
    };
    constexpr std::size_t kCompressionPosition = 77;
    for (Case const& c : cases) {
        SCOPED_TRACE(c.finding);
        files = yx::makeObject<yx::CMemoryFileSystem>();
        makeDisk({.compressed = c.compressed});
        patch("disk.vmdk", kCompressionPosition, c.field);
        if (c.compressed)
            patch("disk.vmdk", bytesOf("disk.vmdk").size() - 2 * kSector + kCompressionPosition,
                  c.field);
        EXPECT_THAT(check(), ElementsAre(c.finding));
    }
}

TEST_F(DiskCheckTest, ChecksTheParentsToo) {
    makeDisk({.compressed = true}, "one.vmdk");
    makeDisk({.compressed = true}, "two.vmdk", "one.vmdk");
    { createSafe({.compressed = true}, "three.vmdk", "two.vmdk"); }
    patch("one.vmdk", grain("one.vmdk", 7) + 12, Bytes(8, 0xFF));
    EXPECT_THAT(check("three.vmdk"), ElementsAre(AllOf(StartsWith("one.vmdk: grain 7: "),
                                                       EndsWith(" (bytes: 458752-524287)"))));

    files->deleteFile(uriOf("one.vmdk"), false);
    EXPECT_THAT(check("three.vmdk"), ElementsAre("one.vmdk: the parent does not exist"));
}

TEST_F(DiskCheckTest, ReportsThatAChainLeadsBack) {
    makeDisk({}, "one.vmdk");
    makeDisk({}, "two.vmdk", "one.vmdk");
    {
        std::unique_ptr<SafeDisk> const one = openSafe("one.vmdk");
        one->getDisk().getDescriptor()->setParentContentID(
            openSafe("two.vmdk", kReadOnly)->getDisk().getDescriptor()->getContentID());
        one->getDisk().getDescriptor()->setParentFileNameHint("two.vmdk");
        one->storeDescriptor();
    }
    std::vector<std::string> const findings = check("two.vmdk");
    ASSERT_EQ(1U, findings.size()) << testing::PrintToString(findings);
    EXPECT_EQ("one.vmdk: the chain of parents leads back to mem:///disks/two.vmdk", findings[0]);
}

TEST_F(DiskCheckTest, WhatTheCallerIsToBlameForIsNoFinding) {
    makeDisk({.password = "secret"});
    EXPECT_THROW(check(), yx::CError);
    EXPECT_THROW(check("disk.vmdk", "wrong"), yx::CError);
    EXPECT_THAT(check("disk.vmdk", "secret"), IsEmpty());
    EXPECT_THROW(check("none.vmdk"), yx::CIOError);
    std::unique_ptr<SafeDisk> const user = openSafe("disk.vmdk", kReadWrite, "secret");
    EXPECT_THROW(check("disk.vmdk", "secret"), yx::CLockFileError);
}

TEST_F(DiskCheckTest, StopsWhenItIsCancelled) {
    makeDisk({.compressed = true});
    CancelFlag flag;
    flag.set();
    WorkOptions options;
    options.cancel = &flag;
    EXPECT_THROW(checkDisk(files.get(), uriOf("disk.vmdk"), "", options,
                           [](yx::CURI const&, std::string const&) {}),
                 CancelledError);
}

TEST_F(DiskCheckTest, GoesThroughTheRecordsOfAFileOnce) {
    constexpr __int64 kSizeBytes = 8 << 20;
    constexpr __int64 kNear = 2 << 20;
    {
        std::unique_ptr<SafeDisk> const disk =
            createSafe({.compressed = true}, "disk.vmdk", "", kSizeBytes);
        writeTo(*disk, 0, pattern(kSizeBytes, 5));
    }
    auto const metadataEnd = static_cast<__int64>(grain("disk.vmdk", 0));
    auto const watched = yx::makeObject<RecordingFileSystem>(files.get());
    WorkOptions options;
    options.threads = 2;
    EXPECT_EQ(0, checkDisk(watched.get(), uriOf("disk.vmdk"), "", options,
                           [](yx::CURI const&, std::string const&) {}));
    __int64 farthest = 0;
    for (RecordingFileSystem::Entry const& entry : watched->entries()) {
        if (entry.operation.kind != FileOperation::Kind::Read ||
            entry.operation.position < metadataEnd)
            continue;
        // The trail is looked for at once.
        if (entry.operation.position > kSizeBytes)
            continue;
        EXPECT_GE(entry.operation.position, farthest - kNear) << entry.operation;
        farthest = std::max(farthest, entry.operation.position);
    }
    EXPECT_GT(farthest, kSizeBytes - kNear);
}

TEST_F(DiskCheckTest, PassesOnWhatTheReportThrows) {
    makeDisk({.compressed = true});
    patch("disk.vmdk", grain("disk.vmdk", 0) + 12, Bytes(8, 0xFF));
    patch("disk.vmdk", grain("disk.vmdk", 7) + 12, Bytes(8, 0xFF));
    int calls = 0;
    EXPECT_TRUE(throwsIOError(yx::CIOError::NoSpace, "full", {}, [&] {
        checkDisk(files.get(), uriOf("disk.vmdk"), "", {},
                  [&](yx::CURI const&, std::string const&) {
                      ++calls;
                      throw yx::CIOError(yx::CIOError::NoSpace, "full", yx::CProps(), nullptr);
                  });
    }));
    EXPECT_EQ(1, calls);
}

} // namespace
} // namespace test_support

// The traps that the library's rules leave to its hosts: each is shown first as it harms a host
// that uses the bare library, and then through this room.

#include <gmock/gmock.h>
#include <sys/stat.h>

#include "host/store/file_names.h"
#include "tests/host/host_fixture.h"
#include "tests/support/hooked_file_system.h"

using testing::Contains;
using testing::Not;

namespace test_support {
namespace {

using Traps = HostTest;

/// A disk that a writer has open until the moment when a reader, refused the lock, looks whether
/// there is a lock file at all.
class LeavingWriter : public HostTest {
protected:
    LeavingWriter() {
        createSafe({});
        writer = open(kReadWrite);
    }

    yx::P<kelm::CVMDKDisk> writer;
    int lockFileQuestions = 0;
    yx::P<HookedFileSystem> hooked = yx::makeObject<HookedFileSystem>(
        files.get(), [this](FileOperation& operation, HookedFileSystem::Proceed const& proceed) {
            if (operation.kind == FileOperation::Kind::Exists &&
                operation.file() == "disk.vmdk.lock" && ++lockFileQuestions == 2)
                writer.reset();
            proceed();
        });
};

TEST_F(LeavingWriter, BareReaderGoesOnUnnoticedByTheNextWriter) {
    kelm::CVMDKDisk const reader(hooked.get(), uriOf("disk.vmdk"), kReadOnly, "", 1, nullptr,
                                 nullptr);
    EXPECT_EQ(2, lockFileQuestions);
    EXPECT_TRUE(open(kReadWrite));
}

TEST_F(LeavingWriter, RefusesTheReader) {
    EXPECT_THROW(SafeDisk(hooked.get(), uriOf("disk.vmdk"), kReadOnly, ""), yx::CLockFileError);
    EXPECT_EQ(1, lockFileQuestions);
}

/// "parent.vmdk" with a grain of data, and an empty "child.vmdk" upon it.
class ChildTraps : public HostTest {
protected:
    ChildTraps() {
        std::unique_ptr<SafeDisk> const parent = createSafe({}, "parent.vmdk");
        writeTo(*parent, 0, pattern(3 * 65536, 1));
        parent->flush();
        unsigned int const parentID = parent->getDisk().getDescriptor()->getContentID();
        create({}, "child.vmdk", kSmallestDiskBytes, "parent.vmdk", parentID);
    }
};

TEST_F(ChildTraps, BareGrainOverwrittenWithZerosShowsTheParentAgain) {
    yx::P<kelm::CVMDKDisk> child = open(kReadWrite, "", "child.vmdk");
    DiskTest::writeAt(*child, 0, zeros(65536));
    child->flushChanges();
    child.reset();
    EXPECT_TRUE(sameBytes(pattern(65536, 1),
                          DiskTest::readAt(*open(kReadOnly, "", "child.vmdk"), 0, 65536)));
}

TEST_F(ChildTraps, GrainOverwrittenWithZerosStaysZero) {
    writeTo(*openSafe("child.vmdk"), 0, zeros(65536));
    Bytes expected = pattern(3 * 65536, 1);
    std::fill_n(expected.begin(), 65536, static_cast<unsigned char>(0));
    EXPECT_TRUE(
        sameBytes(padded(expected, kSmallestDiskBytes), contentAfterReopening("child.vmdk")));
    EXPECT_EQ(1U, countStoredGrains("child.vmdk"));
}

TEST_F(ChildTraps, GrainThatTurnsZeroByPartsStaysZero) {
    {
        std::unique_ptr<SafeDisk> const child = openSafe("child.vmdk");
        // The first parts leave data in the grain, which then has unwritten changes and no place.
        writeTo(*child, 65536, zeros(20000));
        writeTo(*child, 65536 + 20000, pattern(10000, 5));
        writeTo(*child, 65536 + 30000, zeros(35536));
        writeTo(*child, 65536 + 20000, zeros(10000));
        child->flush();
        writeTo(*child, 2 * 65536 + 1, zeros(65535));
        child->flush();
        writeTo(*child, 2 * 65536, zeros(1));
    }
    EXPECT_TRUE(sameBytes(padded(slice(pattern(3 * 65536, 1), 0, 65536), kSmallestDiskBytes),
                          contentAfterReopening("child.vmdk")));
    EXPECT_EQ(2U, countStoredGrains("child.vmdk"));
}

TEST_F(ChildTraps, BareIndependenceDropsUnwrittenChanges) {
    yx::P<kelm::CVMDKDisk> const child = open(kReadWrite, "", "child.vmdk");
    DiskTest::writeAt(*child, 0, pattern(100, 9));
    child->makeGrainIndependentOfParent(0);
    EXPECT_TRUE(sameBytes(pattern(100, 1), DiskTest::readAt(*child, 0, 100)));
}

TEST_F(ChildTraps, IndependenceKeepsUnwrittenChanges) {
    std::unique_ptr<SafeDisk> const child = openSafe("child.vmdk");
    writeTo(*child, 0, pattern(100, 9));
    child->makeGrainIndependentOfParent(0);
    child->makeGrainIndependentOfParent(1);
    EXPECT_TRUE(sameBytes(pattern(100, 9), readFrom(*child, 0, 100)));
    EXPECT_TRUE(child->isGrainWrittenHere(1));
    EXPECT_FALSE(child->isGrainWrittenHere(2));
}

TEST_F(Traps, BareIndependenceWithoutParentMakesTheNextReadMeetTheOldGrain) {
    yx::P<kelm::CVMDKDisk> const disk = create({});
    DiskTest::writeAt(*disk, 0, pattern(2 * 65536, 1));
    disk->flushChanges();
    disk->makeGrainIndependentOfParent(0);
    Bytes next(100);
    disk->read(next.data(), 100);
    EXPECT_TRUE(sameBytes(slice(pattern(2 * 65536, 1), 0, 100), next));
}

TEST_F(Traps, IndependenceWithoutParentDoesNothing) {
    std::unique_ptr<SafeDisk> const disk = createSafe({});
    writeTo(*disk, 0, pattern(2 * 65536, 1));
    disk->makeGrainIndependentOfParent(0);
    Bytes const next = readFrom(*disk, 65536, 100);
    EXPECT_TRUE(sameBytes(slice(pattern(2 * 65536, 1), 65536, 100), next));
}

/// Brings table 15 in and out of a cache of 17 tables in the order that loses its change.
template <class Write, class Read>
void workThroughTwoRuns(Write const& write, Read const& read) {
    constexpr __int64 kTableBytes = 512 * 65536;
    read(16 * kTableBytes);
    write(15 * kTableBytes);
    read(15 * kTableBytes + 65536);
    read(16 * kTableBytes);
    read(15 * kTableBytes + 2 * 65536);
    read(0);
}

constexpr __int64 kTwoRunsBytes = 1 << 30;
constexpr __int64 kStaleGrainBytes = __int64{15} * 512 * 65536;

TEST_F(Traps, BareDiskWithASmallCacheForgetsAWrittenGrain) {
    create({}, "disk.vmdk", kTwoRunsBytes);
    yx::P<kelm::CVMDKGrainTableCache> const cache = yx::makeObject<kelm::CVMDKGrainTableCache>(17);
    yx::P<kelm::CVMDKDisk> const disk = yx::makeObject<kelm::CVMDKDisk>(
        files.get(), uriOf("disk.vmdk"), kReadWrite, "", 1, cache.get(), nullptr);
    workThroughTwoRuns(
        [&](__int64 position) { DiskTest::writeAt(*disk, position, pattern(65536, 1)); },
        [&](__int64 position) { DiskTest::readAt(*disk, position, 1); });
    EXPECT_TRUE(sameBytes(zeros(65536), DiskTest::readAt(*disk, kStaleGrainBytes, 65536)));
}

TEST_F(Traps, WritableDiskKeepsAllTables) {
    std::unique_ptr<SafeDisk> const disk = createSafe({}, "disk.vmdk", "", kTwoRunsBytes);
    workThroughTwoRuns([&](__int64 position) { writeTo(*disk, position, pattern(65536, 1)); },
                       [&](__int64 position) { readFrom(*disk, position, 1); });
    EXPECT_TRUE(sameBytes(pattern(65536, 1), readFrom(*disk, kStaleGrainBytes, 65536)));
    EXPECT_EQ(32, disk->getDisk().getGrainTableCache()->getCachedTableCount());
}

TEST_F(Traps, WritableDiskDropsItsTablesBeforeTheyAreTooMany) {
    constexpr __int64 kTableBytes = 512 * 65536;
    constexpr __int64 kTables = kelm::host::kMaxTablesInMemory + 64;
    std::unique_ptr<SafeDisk> disk = createSafe({}, "disk.vmdk", "", kTables * kTableBytes);
    Bytes const content = pattern(65536, 1);
    int mostTables = 0;
    for (__int64 table = 0; table < kTables; ++table) {
        // Changes here and there, one just before all tables go.
        if (table % 4096 == 4095 || table == kTables - 1)
            writeTo(*disk, table * kTableBytes, content);
        else
            EXPECT_FALSE(disk->isGrainWritten(table * 512));
        mostTables =
            std::max(mostTables, disk->getDisk().getGrainTableCache()->getCachedTableCount());
    }
    EXPECT_EQ(mostTables, kelm::host::kMaxTablesInMemory);
    // The run of tables that was in use when there were too many, and those that came after.
    EXPECT_EQ(disk->getDisk().getGrainTableCache()->getCachedTableCount(), 32 + 64);
    for (bool const isOpenedAnew : {false, true}) {
        for (__int64 table = 4095; table < kTables; table += 4096)
            EXPECT_TRUE(sameBytes(content, readFrom(*disk, table * kTableBytes, 65536))) << table;
        EXPECT_TRUE(sameBytes(content, readFrom(*disk, (kTables - 1) * kTableBytes, 65536)));
        if (isOpenedAnew)
            break;
        disk->flush();
        disk.reset();
        disk = openSafe("disk.vmdk");
    }
}

/// A disk in one native file that has been grown to a length near what tables can name.
class SizeTrap : public HostTest {
protected:
    void makeDisk(__int64 fileBytes) {
        yx::P<FileGuard> const guard = yx::makeObject<FileGuard>(native.get(), false);
        guard->keep();
        NewDisk request;
        request.sizeBytes = 64 << 20;
        SafeDisk::create(guard.get(), folder.uri("disk.vmdk"), request);
        std::filesystem::resize_file(folder.path() / "disk.vmdk",
                                     static_cast<std::uintmax_t>(fileBytes));
    }

    yx::P<yx::CNativeFileSystem> native =
        yx::makeObject<yx::CNativeFileSystem>(yx::NativeFlush::ToSystem);
};

constexpr __int64 kTwoTiB = 2199023255552;

TEST_F(SizeTrap, BareGrainBehindTwoTiBIsLost) {
    makeDisk(kTwoTiB);
    {
        yx::P<kelm::CVMDKDisk> const disk = yx::makeObject<kelm::CVMDKDisk>(
            native.get(), folder.uri("disk.vmdk"), kReadWrite, "", 1, nullptr, nullptr);
        DiskTest::writeAt(*disk, 0, pattern(65536, 1));
        disk->flushChanges();
    }
    SafeDisk disk(native.get(), folder.uri("disk.vmdk"), kReadOnly, "");
    EXPECT_TRUE(sameBytes(zeros(65536), readFrom(disk, 0, 65536)));
}

TEST_F(SizeTrap, WriteThatCouldPassTwoTiBIsRefused) {
    makeDisk(kTwoTiB);
    SafeDisk disk(native.get(), folder.uri("disk.vmdk"), kReadWrite, "");
    Bytes const data = pattern(65536, 1);
    EXPECT_TRUE(throwsIOError(
        yx::CIOError::NoSpace,
        "The file could grow beyond the 2 TiB that one file of a disk can hold. Copy the disk to "
        "one that is split over several files.",
        {{"uri", folder.uri("disk.vmdk").toString(true).toStdString()},
         {"length", "2199023255552"}},
        [&] { writeTo(disk, 0, data); }));
    EXPECT_THROW(disk.writePreparedGrain(1, toBuffer(data)), yx::CIOError);
    EXPECT_TRUE(sameBytes(zeros(65536), readFrom(disk, 0, 65536)));
    EXPECT_EQ(static_cast<std::uintmax_t>(kTwoTiB),
              std::filesystem::file_size(folder.path() / "disk.vmdk"));
}

TEST_F(SizeTrap, FileGrowsUpToTheLimitAndLosesNothing) {
    makeDisk(kTwoTiB - 16 * 65536);
    __int64 written = 0;
    {
        SafeDisk disk(native.get(), folder.uri("disk.vmdk"), kReadWrite, "");
        try {
            for (; written < 100; ++written)
                writeTo(disk, written * 65536, pattern(65536, static_cast<unsigned>(written)));
        } catch (yx::CIOError const& error) {
            EXPECT_EQ(yx::CIOError::NoSpace, error.getIOCode());
        }
        // What has a place can still be overwritten where no growth is in question.
        EXPECT_TRUE(sameBytes(pattern(65536, 0), readFrom(disk, 0, 65536)));
    }
    EXPECT_GE(written, 12);
    EXPECT_LT(written, 16);
    EXPECT_LE(std::filesystem::file_size(folder.path() / "disk.vmdk"),
              static_cast<std::uintmax_t>(kTwoTiB));
    SafeDisk disk(native.get(), folder.uri("disk.vmdk"), kReadOnly, "");
    for (__int64 i = 0; i < written; ++i)
        EXPECT_TRUE(
            sameBytes(pattern(65536, static_cast<unsigned>(i)), readFrom(disk, i * 65536, 65536)));
}

TEST_F(SizeTrap, CreatingASingleFileThatCouldPassTwoTiBIsRefused) {
    NewDisk request;
    request.sizeBytes = kTwoTiB;
    EXPECT_TRUE(throwsInvalidArg(
        "SafeDisk::create",
        "A disk of 2199023255552 bytes could outgrow the 2 TiB that one file can hold. Split it "
        "over several files.",
        {{"sizeBytes", "2199023255552"}},
        [&] { SafeDisk::create(makeGuard().get(), uriOf("disk.vmdk"), request); }));
    // Compressed grains can be larger than plain ones.
    request.sizeBytes = kTwoTiB - (__int64{3} << 30);
    request.compressed = true;
    EXPECT_THROW(SafeDisk::create(makeGuard().get(), uriOf("disk.vmdk"), request),
                 yx::CInvalidArgError);
    EXPECT_TRUE(fileNames().empty());
}

TEST_F(SizeTrap, SplitDiskMayBeLargerThanTwoTiB) {
    NewDisk request;
    request.sizeBytes = 2 * kTwoTiB;
    request.fileSizeLimitBytes = __int64{4} << 30;
    request.createExtentFilesOnDemand = true;
    request.trust.allowOversize = true;
    std::unique_ptr<SafeDisk> const disk =
        SafeDisk::create(makeGuard().get(), uriOf("disk.vmdk"), request);
    writeTo(*disk, 2 * kTwoTiB - 100, pattern(100, 1));
    EXPECT_TRUE(sameBytes(pattern(100, 1), readFrom(*disk, 2 * kTwoTiB - 100, 100)));
}

/// A text descriptor as other software writes it: to the last byte, and without an encoding.
class TightDescriptor : public HostTest {
protected:
    TightDescriptor() {
        putExtent("disk-s001.vmdk", 4);
        putText("disk.vmdk", kText);
    }

    static constexpr char kText[] = "# Disk DescriptorFile\n"
                                    "version=1\n"
                                    "CID=1\n"
                                    "parentCID=ffffffff\n"
                                    "createType=\"twoGbMaxExtentSparse\"\n"
                                    "RW 512 SPARSE \"disk-s001.vmdk\"\n";
};

TEST_F(TightDescriptor, BareFirstWriteFails) {
    yx::P<kelm::CVMDKDisk> const disk = open(kReadWrite);
    EXPECT_THROW(DiskTest::writeAt(*disk, 0, pattern(100, 1)), yx::CError);
}

TEST_F(TightDescriptor, GetsRoomWhenItIsOpenedForWriting) {
    {
        std::unique_ptr<SafeDisk> const disk = openSafe();
        writeTo(*disk, 0, pattern(100, 1));
    }
    EXPECT_TRUE(sameBytes(padded(pattern(100, 1), 512 * 512), contentAfterReopening()));
    std::string const text = textOf("disk.vmdk");
    EXPECT_THAT(text, testing::HasSubstr("encoding=\"UTF-8\"\n"));
    EXPECT_THAT(text, testing::HasSubstr("RW 512 SPARSE \"disk-s001.vmdk\"\n"));
    EXPECT_THAT(text, Not(testing::HasSubstr("CID=1\n")));
}

TEST_F(TightDescriptor, StaysAsItIsWhenTheDiskIsOnlyRead) {
    contentAfterReopening();
    EXPECT_EQ(kText, toText(toBytes(files->getFile(uriOf("disk.vmdk")))));
}

TEST_F(TightDescriptor, WithRoomOfItsOwnKeepsItsLength) {
    putText("disk.vmdk", kText + std::string(1000, '\0'));
    std::size_t const size = std::string(kText).size() + 1000;
    writeTo(*openSafe(), 0, pattern(100, 1));
    EXPECT_EQ(size, static_cast<std::size_t>(files->getFile(uriOf("disk.vmdk")).getUsed()));
}

class MissingExtent : public HostTest {
protected:
    MissingExtent() {
        createSafe({"split", false, kSplitLimit});
        files->deleteFile(uriOf("disk-s00002.vmdk"), false);
    }
};

TEST_F(MissingExtent, BareWriteMakesAnEmptyFileInItsPlace) {
    {
        yx::P<kelm::CVMDKDisk> const disk = open(kReadWrite);
        EXPECT_THROW(DiskTest::writeAt(*disk, kSmallestDiskBytes - 100, pattern(100, 1)),
                     yx::CError);
    }
    EXPECT_THAT(fileNames(), Contains("disk-s00002.vmdk"));
}

TEST_F(MissingExtent, IsNamedBeforeAnythingIsWritten) {
    EXPECT_TRUE(throwsIOError(yx::CIOError::NotFound, "An extent file of the disk is missing.",
                              {{"uri", "mem:///disks/disk-s00002.vmdk"}}, [&] { openSafe(); }));
    EXPECT_THAT(fileNames(), Not(Contains("disk-s00002.vmdk")));
    EXPECT_THAT(fileNames(), Not(Contains("disk.vmdk.lock")));
}

TEST_F(MissingExtent, LeavesTheRestReadable) {
    EXPECT_TRUE(sameBytes(zeros(100), readFrom(*openSafe("disk.vmdk", kReadOnly), 0, 100)));
}

TEST_F(MissingExtent, ExtentMadeOnDemandMayBeMissing) {
    createSafe({"demand", false, kSplitLimit, "", true}, "demand.vmdk");
    EXPECT_THAT(fileNames(), Not(Contains("demand-s00001.vmdk")));
    Bytes const data = pattern(kSmallestDiskBytes, 3);
    writeTo(*openSafe("demand.vmdk"), 0, data);
    EXPECT_TRUE(sameBytes(data, contentAfterReopening("demand.vmdk")));
    EXPECT_EQ(128U, countStoredGrains("demand.vmdk"));
}

TEST_F(MissingExtent, MissingMainFileIsNotMade) {
    EXPECT_TRUE(throwsIOError(yx::CIOError::NotFound, "The disk does not exist.",
                              {{"uri", "mem:///disks/none.vmdk"}}, [&] { openSafe("none.vmdk"); }));
    EXPECT_THAT(fileNames(), Not(Contains("none.vmdk")));
}

/// One native disk that a link leads to.
class TwoSpellings : public SizeTrap {
protected:
    TwoSpellings() {
        makeDisk(16 << 20);
        std::filesystem::create_symlink("disk.vmdk", folder.path() / "link.vmdk");
    }
};

TEST_F(TwoSpellings, BareWritersDoNotExcludeEachOther) {
    auto const openBare = [&](char const* name) {
        return yx::makeObject<kelm::CVMDKDisk>(native.get(), folder.uri(name), kReadWrite, "", 1,
                                               nullptr, nullptr);
    };
    yx::P<kelm::CVMDKDisk> const first = openBare("disk.vmdk");
    EXPECT_NO_THROW(openBare("link.vmdk"));
}

TEST_F(TwoSpellings, WritersOfOneFileExcludeEachOther) {
    auto const openNamed = [&](std::string const& path) {
        return std::make_unique<SafeDisk>(native.get(), kelm::host::uriFromArgument(path),
                                          kReadWrite, "");
    };
    std::unique_ptr<SafeDisk> const first = openNamed(pathOf("disk.vmdk"));
    std::filesystem::create_directory(folder.path() / "sub");
    for (std::string const& path : {pathOf("link.vmdk"), pathOf("sub/../disk.vmdk"),
                                    "file://" + pathOf("disk.vmdk"), pathOf(".//./link.vmdk")})
        EXPECT_THROW(openNamed(path), yx::CLockFileError) << path;
}

} // namespace
} // namespace test_support

#include "host/disk/safe_disk.h"

#include <random>

#include <gmock/gmock.h>

#include "tests/host/host_fixture.h"
#include "tests/support/faulty_file_system.h"

using testing::ElementsAre;

namespace test_support {
namespace {

using SafeDiskTest = HostTest;

TEST_F(SafeDiskTest, EveryKindReadsBackWhatWasWritten) {
    for (DiskKind const& kind : allDiskKinds()) {
        SCOPED_TRACE(kind.name);
        std::string const name = std::string(kind.name) + ".vmdk";
        Bytes const content = padded(mixedContent(8000000), kSmallestDiskBytes);
        writeTo(*createSafe(kind, name), 0, content);
        EXPECT_TRUE(sameBytes(content, contentAfterReopening(name, kind.password)));
        EXPECT_EQ(9U, countStoredGrains(name, kind.password));
    }
}

/// Writes of all sizes, of data and of zeros, at random places of a disk upon any parent, against a
/// plain array of bytes.
class SafeDiskHistory : public HostTest {
protected:
    void run(DiskKind const& parentKind, DiskKind const& kind, unsigned int seed) {
        SCOPED_TRACE(std::string(kind.name) + " upon " + parentKind.name + ", seed " +
                     std::to_string(seed));
        files = yx::makeObject<yx::CMemoryFileSystem>();
        Bytes model = padded(mixedContent(3000000, seed), kSmallestDiskBytes);
        writeTo(*createSafe(parentKind, "parent.vmdk"), 0, model);
        std::unique_ptr<SafeDisk> disk = createSafe(kind, "child.vmdk", "parent.vmdk");
        std::mt19937 random(seed);
        auto const draw = [&random](unsigned int below) { return random() % below; };
        for (int i = 0; i < 60; ++i) {
            std::size_t const position = draw(3000000);
            std::size_t const size = draw(3) == 0 ? 65536 : draw(200000) + 1;
            Bytes data = draw(2) == 0 ? zeros(size) : textPattern(size, i + seed);
            std::size_t const at = draw(2) == 0 ? position : position / 65536 * 65536;
            if (draw(4) == 0) {
                data = zeros(size);
                disk->writeZeros(static_cast<__int64>(at), static_cast<__int64>(size));
            } else {
                writeTo(*disk, static_cast<__int64>(at), data);
            }
            std::copy(data.begin(), data.end(), model.begin() + static_cast<long>(at));
            if (draw(8) == 0)
                disk->makeGrainIndependentOfParent(draw(100));
            if (draw(10) == 0)
                disk->flush();
            if (draw(10) == 0) {
                disk.reset();
                disk = openSafe("child.vmdk", kReadWrite, kind.password);
            }
            std::size_t const check = draw(3000000);
            ASSERT_TRUE(sameBytes(slice(model, check, 100000),
                                  readFrom(*disk, static_cast<__int64>(check), 100000)));
        }
        disk.reset();
        EXPECT_TRUE(sameBytes(model, contentAfterReopening("child.vmdk", kind.password)));
        countStoredGrains("child.vmdk", kind.password);
    }
};

TEST_F(SafeDiskHistory, AgreesWithAnArrayOfBytes) {
    DiskKind const plain{"plain"};
    DiskKind const compressed{"compressed", true};
    DiskKind const split{"split", false, kSplitLimit, "", true};
    DiskKind const secret{"encryptedCompressed", true, -1, "secret"};
    run(plain, plain, 1);
    run(compressed, plain, 2);
    run(plain, compressed, 3);
    run(compressed, compressed, 4);
    run(plain, split, 5);
    run(secret, secret, 6);
}

TEST_F(SafeDiskTest, ZerosTakeNoSpaceWhereTheChainHoldsNothing) {
    createSafe({}, "parent.vmdk");
    {
        std::unique_ptr<SafeDisk> const child = createSafe({}, "child.vmdk", "parent.vmdk");
        writeTo(*child, 0, zeros(200000));
        child->writeZeros(0, kSmallestDiskBytes);
    }
    EXPECT_EQ(0U, countStoredGrains("child.vmdk"));
}

TEST_F(SafeDiskTest, ZerosTakeNoSpaceWhereTheParentHasStoredZeros) {
    {
        std::unique_ptr<SafeDisk> const parent = createSafe({}, "parent.vmdk");
        parent->writePreparedGrain(0, toBuffer(zeros(65536)));
    }
    createSafe({}, "child.vmdk", "parent.vmdk")->writeZeros(0, kSmallestDiskBytes);
    EXPECT_EQ(1U, countStoredGrains("parent.vmdk"));
    EXPECT_EQ(0U, countStoredGrains("child.vmdk"));
}

TEST_F(SafeDiskTest, LastGrainThatIsCutShortTurnsZeroOverAParent) {
    writeTo(*createSafe({}, "parent.vmdk"), 0, pattern(3 * 65536, 1));
    putShortChild();
    Bytes expected = slice(pattern(3 * 65536, 1), 0, 300 * 512);
    {
        std::unique_ptr<SafeDisk> const child = openSafe("child.vmdk");
        EXPECT_EQ(3, child->getGrainCount());
        EXPECT_TRUE(child->isWholeGrain(1));
        EXPECT_FALSE(child->isWholeGrain(2));
        child->writeZeros(2 * 65536, 300 * 512 - 2 * 65536);
    }
    std::fill(expected.begin() + 2 * 65536, expected.end(), static_cast<unsigned char>(0));
    EXPECT_TRUE(sameBytes(expected, contentAfterReopening("child.vmdk")));
    EXPECT_EQ(1U, countStoredGrains("child.vmdk"));
}

TEST_F(SafeDiskTest, LastGrainThatIsCutShortTurnsZeroByParts) {
    writeTo(*createSafe({}, "parent.vmdk"), 0, pattern(3 * 65536, 1));
    putShortChild();
    {
        std::unique_ptr<SafeDisk> const child = openSafe("child.vmdk");
        writeTo(*child, 2 * 65536, zeros(10000));
        writeTo(*child, 2 * 65536 + 10000, zeros(300 * 512 - 2 * 65536 - 10000));
    }
    EXPECT_TRUE(sameBytes(zeros(300 * 512 - 2 * 65536),
                          slice(contentAfterReopening("child.vmdk"), 2 * 65536, 65536)));
}

TEST_F(SafeDiskTest, LastGrainThatIsCutShortBecomesIndependent) {
    writeTo(*createSafe({}, "parent.vmdk"), 0, pattern(3 * 65536, 1));
    putShortChild();
    {
        std::unique_ptr<SafeDisk> const child = openSafe("child.vmdk");
        makeIndependentOfParent(*child, {});
    }
    EXPECT_EQ(3U, countStoredGrains("child.vmdk"));
    EXPECT_TRUE(
        sameBytes(slice(pattern(3 * 65536, 1), 0, 300 * 512), contentAfterReopening("child.vmdk")));
}

TEST_F(SafeDiskTest, ChildIsLargerThanAParentThatEndsWithinAGrain) {
    writeTo(*createSafe({}, "parent.vmdk"), 0, pattern(3 * 65536, 1));
    putShortChild();
    createSafe({}, "grandchild.vmdk", "child.vmdk");
    Bytes const expected = padded(slice(pattern(3 * 65536, 1), 0, 300 * 512), kSmallestDiskBytes);
    EXPECT_TRUE(sameBytes(expected, contentAfterReopening("grandchild.vmdk")));
    {
        std::unique_ptr<SafeDisk> const disk = openSafe("grandchild.vmdk");
        Buffer prepared;
        EXPECT_TRUE(disk->tryReadPreparedGrain(1, prepared));
        EXPECT_FALSE(disk->tryReadPreparedGrain(2, prepared));
        makeIndependentOfParent(*disk, {});
    }
    EXPECT_EQ(3U, countStoredGrains("grandchild.vmdk"));
    EXPECT_TRUE(sameBytes(expected, contentAfterReopening("grandchild.vmdk")));
}

TEST_F(SafeDiskTest, GrainsOfAParentOfAnotherFormAreCopiedPlain) {
    {
        std::unique_ptr<SafeDisk> const parent = createSafe({}, "parent.vmdk");
        writeTo(*parent, 0, pattern(2 * 65536, 1));
        parent->writePreparedGrain(3, toBuffer(zeros(65536)));
    }
    {
        std::unique_ptr<SafeDisk> const child =
            createSafe({"compressed", true}, "child.vmdk", "parent.vmdk");
        writeTo(*child, 5 * 65536, textPattern(65536, 3));
        child->flush();
        unsigned int const contentID = child->getDisk().getDescriptor()->getContentID();
        Buffer prepared;
        EXPECT_FALSE(child->tryReadPreparedGrain(0, prepared));
        // Its own grains are of its own form all the same.
        EXPECT_TRUE(child->tryReadPreparedGrain(5, prepared));
        makeIndependentOfParent(*child, {});
        EXPECT_EQ(contentID, child->getDisk().getDescriptor()->getContentID());
    }
    EXPECT_EQ(4U, countStoredGrains("child.vmdk"));
    Bytes expected = padded(pattern(2 * 65536, 1), kSmallestDiskBytes);
    Bytes const own = textPattern(65536, 3);
    std::copy(own.begin(), own.end(), expected.begin() + 5 * 65536);
    EXPECT_TRUE(sameBytes(expected, contentAfterReopening("child.vmdk")));
}

TEST_F(SafeDiskTest, IndependenceLeavesTheContentIDForGrandchildren) {
    writeTo(*createSafe({}, "parent.vmdk"), 0, pattern(2 * 65536, 1));
    createSafe({}, "child.vmdk", "parent.vmdk");
    createSafe({}, "grandchild.vmdk", "child.vmdk");
    makeIndependentOfParent(*openSafe("child.vmdk"), {});
    EXPECT_TRUE(sameBytes(padded(pattern(2 * 65536, 1), kSmallestDiskBytes),
                          contentAfterReopening("grandchild.vmdk")));
}

TEST_F(SafeDiskTest, RefusesWhatLiesOutsideAndWritesNothing) {
    std::unique_ptr<SafeDisk> const disk = createSafe({});
    auto const refusal = [](char const* position, char const* bytes) {
        return Props{{"mainFileURI", "mem:///disks/disk.vmdk"},
                     {"position", position},
                     {"bytesToWrite", bytes}};
    };
    EXPECT_TRUE(throwsIOError(yx::CIOError::NotAllowed, "Write exceeds VMDK disk size.",
                              refusal("8388600", "9"),
                              [&] { writeTo(*disk, 8388600, pattern(9, 1)); }));
    EXPECT_TRUE(throwsIOError(yx::CIOError::NotAllowed, "Write exceeds VMDK disk size.",
                              refusal("0", "9000000000000"),
                              [&] { disk->writeZeros(0, 9000000000000); }));
    EXPECT_TRUE(throwsIOError(yx::CIOError::BadPosition, "Bad seek position in VMDK disk: -1",
                              {{"mainFileURI", "mem:///disks/disk.vmdk"}, {"diskSize", "8388608"}},
                              [&] { writeTo(*disk, -1, pattern(9, 1)); }));
    EXPECT_TRUE(sameBytes(zeros(8), readFrom(*disk, 8388600, 8)));
}

TEST_F(SafeDiskTest, CountBelowOneChangesNothing) {
    createSafe({}, "parent.vmdk");
    createSafe({}, "child.vmdk", "parent.vmdk");
    createSafe({"split", false, kSplitLimit, "", true}, "demand.vmdk");
    for (char const* const name : {"parent.vmdk", "child.vmdk", "demand.vmdk"}) {
        SCOPED_TRACE(name);
        Bytes const before = toBytes(files->getFile(uriOf(name)));
        std::vector<std::string> const namesBefore = fileNames();
        {
            std::unique_ptr<SafeDisk> const disk = openSafe(name);
            for (int const count : {0, -1, -70000}) {
                for (__int64 const position : {__int64{0}, __int64{65536}, kSmallestDiskBytes}) {
                    disk->write(position, nullptr, count);
                    disk->writeZeros(position, count);
                }
            }
            disk->flush();
        }
        EXPECT_TRUE(sameBytes(before, toBytes(files->getFile(uriOf(name)))));
        EXPECT_EQ(namesBefore, fileNames());
    }
}

TEST_F(SafeDiskTest, ReadOnlyDiskRefusesZerosToo) {
    createSafe({});
    std::unique_ptr<SafeDisk> const disk = openSafe("disk.vmdk", kReadOnly);
    EXPECT_TRUE(throwsError("Internal error: CVMDKDisk::write was called, but the disk was not "
                            "opened for writing.",
                            {}, [&] { disk->writeZeros(0, 65536); }));
    EXPECT_THROW(writeTo(*disk, 0, pattern(10, 1)), yx::CError);
}

TEST_F(SafeDiskTest, ExtentsThatAreNoWholeGrainsAreReadAndNotWritten) {
    putExtent("a.vmdk", 1);
    putExtent("b.vmdk", 1);
    putText("disk.vmdk", "# Disk DescriptorFile\nversion=1\nencoding=\"UTF-8\"\nCID=12345678\n"
                         "parentCID=ffffffff\ncreateType=\"twoGbMaxExtentSparse\"\n"
                         "RW 100 SPARSE \"a.vmdk\"\nRW 128 SPARSE \"b.vmdk\"\n" +
                             std::string(600, '\0'));
    Bytes const content = pattern(228 * 512, 1);
    {
        yx::P<kelm::CVMDKDisk> const bare = open(kReadWrite);
        DiskTest::writeAt(*bare, 0, content);
        bare->flushChanges();
    }
    EXPECT_TRUE(throwsIOError(yx::CIOError::NotSupported,
                              "The disk cannot be written to, since not all of its extents are "
                              "whole numbers of grains.",
                              {{"uri", "mem:///disks/disk.vmdk"}}, [&] { openSafe(); }));
    kelm::host::RawTarget target(pathOf("out.raw"), false);
    exportRaw(*openSafe("disk.vmdk", kReadOnly), target, {});
    EXPECT_TRUE(sameBytes(content, readImage(pathOf("out.raw"))));
}

TEST_F(SafeDiskTest, FileMadeOnDemandReachesToTheEndOfAnExtentThatIsCutShort) {
    putExtent("a.vmdk", 2);
    putText("disk.vmdk", "# Disk DescriptorFile\nversion=1\nencoding=\"UTF-8\"\nCID=12345678\n"
                         "parentCID=ffffffff\ncreateType=\"twoGbMaxExtentSparse\"\n"
                         "RW 256 SPARSE \"a.vmdk\"\nRW 300 SPARSE \"b.vmdk\"\n"
                         "yxCreateExtentFilesOnDemand=\"1\"\n" +
                             std::string(600, '\0'));
    Bytes const content = pattern(556 * 512, 1);
    writeTo(*openSafe(), 0, content);
    EXPECT_TRUE(sameBytes(content, contentAfterReopening()));
    EXPECT_TRUE(sameBytes(content, readFrom(*openSafe(), 0, content.size())));
}

TEST_F(SafeDiskTest, CreatesOverNothing) {
    putText("disk.vmdk", "a letter");
    NewDisk request;
    request.sizeBytes = kSmallestDiskBytes;
    EXPECT_TRUE(throwsIOError(yx::CIOError::AlreadyExists, "The file exists already.",
                              {{"uri", "mem:///disks/disk.vmdk"}}, [&] {
                                  SafeDisk::create(makeGuard().get(), uriOf("disk.vmdk"), request);
                              }));
    EXPECT_EQ("a letter", toText(toBytes(files->getFile(uriOf("disk.vmdk")))));
    EXPECT_THAT(fileNames(), ElementsAre("disk.vmdk"));
}

TEST_F(SafeDiskTest, ExtentFileInTheWayStaysAndNothingElseDoes) {
    putText("disk-s00001.vmdk", "a letter");
    NewDisk request;
    request.sizeBytes = kSmallestDiskBytes;
    request.fileSizeLimitBytes = kSplitLimit;
    EXPECT_TRUE(throwsIOError(yx::CIOError::AlreadyExists, "The file exists already.",
                              {{"uri", "mem:///disks/disk-s00001.vmdk"}}, [&] {
                                  SafeDisk::create(makeGuard().get(), uriOf("disk.vmdk"), request);
                              }));
    EXPECT_THAT(fileNames(), ElementsAre("disk-s00001.vmdk"));
}

TEST_F(SafeDiskTest, CreationThatFailsAnywhereLeavesNothing) {
    NewDisk request;
    request.sizeBytes = kSmallestDiskBytes;
    request.fileSizeLimitBytes = kSplitLimit;
    std::string lastError;
    for (int nth = 1;; ++nth) {
        SCOPED_TRACE(nth);
        ASSERT_LT(nth, 200) << lastError;
        yx::P<FaultyFileSystem> const faulty = yx::makeObject<FaultyFileSystem>(files.get());
        faulty->add({.kinds = {FileOperation::Kind::Write, FileOperation::Kind::Open},
                     .nth = nth,
                     .code = yx::CIOError::NoSpace});
        bool failed = false;
        try {
            SafeDisk::create(yx::makeObject<FileGuard>(faulty.get(), false).get(),
                             uriOf("disk.vmdk"), request);
        } catch (yx::CError const& error) {
            failed = true;
            lastError = error.what();
        }
        // A lock file that could not be removed is in nobody's way: its next user removes it.
        yx::makeObject<yx::CLockFile>(files.get(), uriOf("disk.vmdk.lock"),
                                      yx::CLockFile::Exclusive, false, true);
        ASSERT_THAT(fileNames(), ElementsAre()) << lastError;
        if (!failed)
            break;
    }
}

TEST_F(SafeDiskTest, DiskInUseIsNotReplaced) {
    std::unique_ptr<SafeDisk> const user = createSafe({});
    writeTo(*user, 0, pattern(100, 1));
    NewDisk request;
    request.sizeBytes = kSmallestDiskBytes;
    EXPECT_THROW(SafeDisk::create(makeGuard(true).get(), uriOf("disk.vmdk"), request),
                 yx::CLockFileError);
    EXPECT_TRUE(sameBytes(pattern(100, 1), readFrom(*user, 0, 100)));
}

TEST_F(SafeDiskTest, ParentsAreNotReplacedByTheirChild) {
    writeTo(*createSafe({"split", false, kSplitLimit}, "old.vmdk"), 0, pattern(65536, 1));
    createSafe({}, "parent.vmdk", "old.vmdk");
    NewDisk request;
    request.sizeBytes = kSmallestDiskBytes;
    request.parent = uriOf("parent.vmdk");
    for (char const* const name : {"parent.vmdk", "old.vmdk", "old-s00001.vmdk"}) {
        SCOPED_TRACE(name);
        EXPECT_THROW(SafeDisk::create(makeGuard(true).get(), uriOf(name), request), yx::CError);
    }
    EXPECT_TRUE(
        sameBytes(pattern(65536, 1), slice(contentAfterReopening("parent.vmdk"), 0, 65536)));
    EXPECT_THAT(fileNames(), ElementsAre("old-s00000.vmdk", "old-s00001.vmdk", "old-s00002.vmdk",
                                         "old.vmdk", "parent.vmdk"));
}

TEST_F(SafeDiskTest, NameOfALockFileIsRefused) {
    putText("disk.lock", "a letter");
    NewDisk request;
    request.sizeBytes = kSmallestDiskBytes;
    EXPECT_TRUE(throwsInvalidArg("SafeDisk::create", "The name of a disk must not end in '.lock'.",
                                 {{"uri", "mem:///disks/disk.lock"}}, [&] {
                                     SafeDisk::create(makeGuard().get(), uriOf("disk.lock"),
                                                      request);
                                 }));
    EXPECT_EQ("a letter", toText(toBytes(files->getFile(uriOf("disk.lock")))));
}

TEST_F(SafeDiskTest, KeepsAsManyGrainTablesForReadingAsToldTo) {
    constexpr __int64 kBytesPerTable = __int64{512} * kGrainBytes;
    {
        std::unique_ptr<SafeDisk> const disk = createSafe({}, "disk.vmdk", "", 3 * kBytesPerTable);
        for (__int64 table = 0; table < 3; ++table)
            writeTo(*disk, table * kBytesPerTable, Bytes{7});
    }
    auto const countTables = [this](SafeDisk& disk) {
        for (__int64 table = 0; table < 3; ++table)
            EXPECT_EQ(Bytes{7}, readFrom(disk, table * kBytesPerTable, 1));
        return disk.getDisk().getGrainTableCache()->getCachedTableCount();
    };
    EXPECT_EQ(3, countTables(*openSafe("disk.vmdk", kReadOnly)));
    SafeDisk limited(files.get(), uriOf("disk.vmdk"), kReadOnly, "", -1, 1);
    EXPECT_EQ(1, countTables(limited));
}

TEST_F(SafeDiskTest, ListsItsFiles) {
    auto const names = [](SafeDisk& disk) {
        std::vector<std::string> list;
        for (yx::CURI const& uri : disk.listFiles())
            list.push_back(uri.getName().toStdString());
        return list;
    };
    EXPECT_THAT(names(*createSafe({}, "one.vmdk")), ElementsAre("one.vmdk"));
    EXPECT_THAT(
        names(*createSafe({"split", false, kSplitLimit}, "many.vmdk")),
        ElementsAre("many.vmdk", "many-s00000.vmdk", "many-s00001.vmdk", "many-s00002.vmdk"));
}

} // namespace
} // namespace test_support

#include <gmock/gmock.h>

#include "tests/support/disk_fixture.h"
#include "tests/support/faulty_file_system.h"
#include "tests/support/ignored_exception_capture.h"
#include "tests/support/recording_file_system.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace test_support {
namespace {

constexpr char kMain[] = "mem:///disks/disk.vmdk";

/// A disk of three extents of four grains each, of one sector a grain.
class DiskRouting : public DiskTest {
protected:
    static constexpr int kExtentBytes = 4 * 512;
    static constexpr int kDiskBytes = 3 * kExtentBytes;

    DiskRouting() {
        for (char const* name : {"a.vmdk", "b.vmdk", "c.vmdk"})
            putExtent(name, 4, 1);
        putText("disk.vmdk", "version=1\nencoding=\"UTF-8\"\nCID=12345678\nparentCID=ffffffff\n"
                             "createType=\"twoGbMaxExtentSparse\"\n"
                             "RW 4 SPARSE \"a.vmdk\"\n"
                             "RW 4 SPARSE \"b.vmdk\"\n"
                             "RW 4 SPARSE \"c.vmdk\"\n");
    }

    yx::P<kelm::CVMDKDisk> openRecorded(yx::IIOStream::Access access) {
        recording = yx::makeObject<RecordingFileSystem>(files.get());
        yx::P<kelm::CVMDKDisk> const disk = yx::makeObject<kelm::CVMDKDisk>(
            recording.get(), uriOf("disk.vmdk"), access, "", 1, nullptr, nullptr);
        recording->clear();
        return disk;
    }

    yx::P<RecordingFileSystem> recording;
};

TEST_F(DiskRouting, WritesAndReadsCrossExtents) {
    Bytes const content = pattern(kDiskBytes, 1);
    {
        yx::P<kelm::CVMDKDisk> const disk = open(yx::IIOStream::ReadWrite);
        writeAt(*disk, 0, content);
        EXPECT_EQ(kDiskBytes, disk->getPosition());
        EXPECT_TRUE(sameBytes(content, readAt(*disk, 0, kDiskBytes)));
    }
    yx::P<kelm::CVMDKDisk> const disk = open();
    EXPECT_TRUE(sameBytes(slice(content, 2000, 3000), readAt(*disk, 2000, 3000)));
}

TEST_F(DiskRouting, BoundaryBelongsToTheSecondExtent) {
    yx::P<kelm::CVMDKDisk> const disk = openRecorded(yx::IIOStream::ReadOnly);
    readAt(*disk, kExtentBytes, 1);
    EXPECT_THAT(recording->lines({FileOperation::Kind::Open}), ElementsAre("open b.vmdk r"));
    recording->clear();
    readAt(*disk, kExtentBytes - 1, 1);
    EXPECT_THAT(recording->lines({FileOperation::Kind::Open}), ElementsAre("open a.vmdk r"));
}

TEST_F(DiskRouting, ExtentIsOpenedOnceAndClosedWhenTheCursorLeavesIt) {
    yx::P<kelm::CVMDKDisk> const disk = openRecorded(yx::IIOStream::ReadOnly);
    readAt(*disk, 0, 100);
    readAt(*disk, 1000, 100);
    readAt(*disk, 0, kDiskBytes);
    EXPECT_THAT(recording->lines({FileOperation::Kind::Open, FileOperation::Kind::Close}),
                ElementsAre("open a.vmdk r", "close a.vmdk", "open b.vmdk r", "close b.vmdk",
                            "open c.vmdk r"));
}

TEST_F(DiskRouting, LeftExtentIsFlushed) {
    yx::P<kelm::CVMDKDisk> const disk = openRecorded(yx::IIOStream::ReadWrite);
    writeAt(*disk, 0, fromText("x"));
    recording->clear();
    readAt(*disk, kExtentBytes, 1);
    EXPECT_TRUE(comesBefore(recording->lines(), "flush a.vmdk", "open b.vmdk rw"));
}

TEST_F(DiskRouting, EndOfTheDiskFlushesTheExtentThenGivesTheLockBackThenClosesTheExtent) {
    yx::P<kelm::CVMDKDisk> disk = openRecorded(yx::IIOStream::ReadWrite);
    writeAt(*disk, 0, fromText("x"));
    recording->clear();
    disk.reset();
    EXPECT_TRUE(comesBefore(recording->lines(), "flush a.vmdk", "delete disk.vmdk.lock"));
    EXPECT_TRUE(comesBefore(recording->lines(), "close disk.vmdk.lock", "close a.vmdk"));
}

TEST_F(DiskRouting, SeekTakesPositionsUpToTheEnd) {
    yx::P<kelm::CVMDKDisk> const disk = open();
    disk->seek(kDiskBytes);
    disk->seek(77);
    for (auto const& [position, text] : {std::pair(-1LL, "-1"), std::pair(6145LL, "6145")}) {
        EXPECT_TRUE(throwsIOError(yx::CIOError::BadPosition,
                                  std::string("Bad seek position in VMDK disk: ") + text,
                                  Props{{"mainFileURI", kMain}, {"diskSize", "6144"}},
                                  [&, position = position] { disk->seek(position); }));
        EXPECT_EQ(77, disk->getPosition());
    }
}

TEST_F(DiskRouting, ReadPastTheEndIsRefused) {
    yx::P<kelm::CVMDKDisk> const disk = openRecorded(yx::IIOStream::ReadOnly);
    Bytes buffer(2);
    disk->seek(6143);
    EXPECT_TRUE(
        throwsIOError(yx::CIOError::UnexpectedEnd, "Read exceeds VMDK disk size.",
                      Props{{"mainFileURI", kMain}, {"position", "6143"}, {"bytesToRead", "2"}},
                      [&] { disk->read(buffer.data(), 2); }));
    EXPECT_EQ(6143, disk->getPosition());
    disk->seek(6144);
    EXPECT_TRUE(
        throwsIOError(yx::CIOError::UnexpectedEnd, "Read exceeds VMDK disk size.",
                      Props{{"mainFileURI", kMain}, {"position", "6144"}, {"bytesToRead", "1"}},
                      [&] { disk->read(buffer.data(), 1); }));
    disk->read(buffer.data(), 0);
    disk->read(buffer.data(), -5);
    EXPECT_EQ(6144, disk->getPosition());
    EXPECT_THAT(recording->lines(), IsEmpty());
}

TEST_F(DiskRouting, WriteTestsRangeThenAccessThenCount) {
    yx::P<kelm::CVMDKDisk> const readOnly = open();
    readOnly->seek(6143);
    EXPECT_TRUE(
        throwsIOError(yx::CIOError::NotAllowed, "Write exceeds VMDK disk size.",
                      Props{{"mainFileURI", kMain}, {"position", "6143"}, {"bytesToWrite", "2"}},
                      [&] { readOnly->write("xy", 2); }));
    EXPECT_TRUE(throwsError("Internal error: CVMDKDisk::write was called, but the disk was not "
                            "opened for writing.",
                            Props{}, [&] { readOnly->write("x", 0); }));
}

TEST_F(DiskRouting, WriteOfNothingOrLessDoesNothing) {
    yx::P<kelm::CVMDKDisk> const disk = openRecorded(yx::IIOStream::ReadWrite);
    disk->write("x", 0);
    disk->write("x", -1);
    EXPECT_EQ(0, disk->getPosition());
    EXPECT_THAT(recording->lines(), IsEmpty());
}

TEST_F(DiskRouting, PreparedGrainsPass) {
    yx::P<kelm::CVMDKDisk> const disk = open(yx::IIOStream::ReadWrite);
    Buffer const grain = toBuffer(pattern(512, 3));
    disk->seek(kExtentBytes + 512);
    disk->writePreparedGrainData(grain);
    EXPECT_EQ(kExtentBytes + 1024, disk->getPosition());
    disk->seek(kExtentBytes + 512);
    Buffer back;
    disk->readPreparedGrainData(back);
    EXPECT_TRUE(sameBytes(grain, back));
    EXPECT_EQ(kExtentBytes + 1024, disk->getPosition());
}

TEST_F(DiskRouting, PreparedGrainsKeepToTheDiskAndToGrains) {
    yx::P<kelm::CVMDKDisk> const disk = open();
    Buffer data = toBuffer(zeros(512));
    struct Operation {
        std::string word;
        std::function<void()> run;
    };
    Operation const operations[] = {
        {"read", [&] { disk->readPreparedGrainData(data); }},
        {"write", [&] { disk->writePreparedGrainData(data); }},
    };
    for (Operation const& operation : operations) {
        // Both wrong: the range is what is reported, also without write access.
        disk->seek(5633);
        EXPECT_TRUE(throwsIOError(yx::CIOError::NotAllowed,
                                  "Prepared grain " + operation.word + " exceeds VMDK disk size.",
                                  Props{{"mainFileURI", kMain},
                                        {"position", "5633"},
                                        {"grainSize", "512"},
                                        {"diskSize", "6144"}},
                                  operation.run));
        disk->seek(511);
        EXPECT_TRUE(
            throwsIOError(yx::CIOError::NotAligned,
                          "Prepared grain " + operation.word +
                              " in VMDK disk can only be done on a grain boundary.",
                          Props{{"mainFileURI", kMain}, {"position", "511"}, {"grainSize", "512"}},
                          operation.run));
        EXPECT_EQ(511, disk->getPosition());
    }
    disk->seek(512);
    EXPECT_TRUE(throwsError("Internal error: CVMDKDisk::write was called, but the disk was not "
                            "opened for writing.",
                            Props{}, operations[1].run));
}

TEST_F(DiskRouting, GrainThatStraddlesExtentsIsAnInternalError) {
    putExtent("big.vmdk", 4, 2);
    putText("disk.vmdk", "version=1\nencoding=\"UTF-8\"\nCID=12345678\n"
                         "createType=\"twoGbMaxExtentSparse\"\n"
                         "RW 3 SPARSE \"big.vmdk\"\nRW 4 SPARSE \"a.vmdk\"\n");
    yx::P<kelm::CVMDKDisk> const disk = open(yx::IIOStream::ReadWrite);
    Buffer data = toBuffer(zeros(1024));
    Props const props = {{"mainFileURI", kMain},
                         {"position", "1024"},
                         {"grainSize", "1024"},
                         {"opBytes", "512"},
                         {"diskSize", "3584"}};
    std::string const begin = "Internal error: CVMDKDisk::beginIOOp in CVMDKDisk::";
    disk->seek(1024);
    EXPECT_TRUE(throwsError(begin + "writePreparedGrainData returned less than the grain size.",
                            props, [&] { disk->writePreparedGrainData(data); }));
    EXPECT_TRUE(throwsError(begin + "tryRreparedGrainData returned less than the grain size.",
                            props, [&] { disk->readPreparedGrainData(data); }));
    EXPECT_TRUE(throwsError(begin + "writePreparedGrainData returned less than the grain size.",
                            props, [&] { disk->makeGrainIndependentOfParent(1); }));
}

TEST_F(DiskRouting, ExtentsOfOddSizeStartAtTheNextWholeGrain) {
    putExtent("big.vmdk", 4, 2);
    putExtent("second.vmdk", 4, 2, true);
    putText("disk.vmdk", "version=1\nencoding=\"UTF-8\"\nCID=12345678\n"
                         "createType=\"twoGbMaxExtentSparse\"\n"
                         "RW 3 SPARSE \"big.vmdk\"\nRW 4 SPARSE \"second.vmdk\"\n");
    {
        yx::P<kelm::CVMDKDisk> const disk = open(yx::IIOStream::ReadWrite);
        writeAt(*disk, 3 * 512, pattern(1024, 5));
    }
    // Three sectors are one grain and a half, so the second extent begins with grain 2, sector 4.
    Bytes const file = toBytes(files->getFile(uriOf("second.vmdk")));
    std::size_t const overheadBytes = file[64] * 512u; // the low byte of the header field
    EXPECT_TRUE(sameBytes(fromHex("0400000000000000"), slice(file, overheadBytes, 8)));
}

TEST_F(DiskRouting, MakeGrainIndependentNeedsWriteAccessAndAnExtent) {
    EXPECT_TRUE(throwsError("Internal error: CVMDKDisk::makeGrainIndependentOfParent was called, "
                            "but the disk was not opened for writing.",
                            Props{}, [&] { open()->makeGrainIndependentOfParent(0); }));
    yx::P<kelm::CVMDKDisk> const disk = open(yx::IIOStream::ReadWrite);
    EXPECT_EQ(0, disk->makeGrainIndependentOfParent(5)); // no parent
    EXPECT_EQ(6 * 512, disk->getPosition());
    EXPECT_TRUE(throwsError("Internal error: cannot find VMDK extent for position 6144",
                            Props{{"mainURI", kMain}},
                            [&] { disk->makeGrainIndependentOfParent(12); }));
    EXPECT_TRUE(throwsIOError(yx::CIOError::BadPosition, "Bad seek position in VMDK disk: 6656",
                              Props{{"mainFileURI", kMain}, {"diskSize", "6144"}},
                              [&] { disk->makeGrainIndependentOfParent(13); }));
    EXPECT_THROW(disk->makeGrainIndependentOfParent(std::numeric_limits<__int64>::max()),
                 yx::CIOError);
    EXPECT_THROW(disk->makeGrainIndependentOfParent(std::numeric_limits<__int64>::min()),
                 yx::CIOError);
}

TEST_F(DiskRouting, WrittenGrainsAreKnown) {
    yx::P<kelm::CVMDKDisk> const disk = open(yx::IIOStream::ReadWrite);
    writeAt(*disk, kExtentBytes, fromText("x"));
    disk->seek(kExtentBytes + 100);
    EXPECT_TRUE(disk->isGrainWritten());
    EXPECT_TRUE(disk->isGrainWrittenAndIndependentOfParent());
    EXPECT_EQ(kExtentBytes + 100, disk->getPosition());
    disk->seek(0);
    EXPECT_FALSE(disk->isGrainWritten());
    EXPECT_FALSE(disk->isGrainWrittenAndIndependentOfParent());
    disk->seek(kDiskBytes);
    EXPECT_TRUE(throwsError("Internal error: cannot find VMDK extent for position 6144",
                            Props{{"mainURI", kMain}}, [&] { disk->isGrainWritten(); }));
    EXPECT_THROW(disk->isGrainWrittenAndIndependentOfParent(), yx::CError);
}

TEST_F(DiskRouting, BytesWithoutDataAreCountedUpToAGrainOrTheEndOfTheExtent) {
    yx::P<kelm::CVMDKDisk> const disk = open(yx::IIOStream::ReadWrite);
    writeAt(*disk, 2 * 512, fromText("x"));
    writeAt(*disk, kExtentBytes + 3 * 512, fromText("x"));
    auto const count = [&](__int64 position, __int64 maxBytes) {
        disk->seek(position);
        __int64 const bytes = disk->countBytesWithoutData(maxBytes);
        EXPECT_EQ(position, disk->getPosition());
        return bytes;
    };
    // The last grain that was written is in memory only.
    EXPECT_EQ(0, count(kExtentBytes + 3 * 512 + 1, 512));
    EXPECT_EQ(2 * 512, count(0, kDiskBytes));
    EXPECT_EQ(2 * 512 - 100, count(100, kDiskBytes));
    EXPECT_EQ(700, count(100, 700));
    EXPECT_EQ(0, count(2 * 512, kDiskBytes));
    EXPECT_EQ(512, count(3 * 512, kDiskBytes));
    EXPECT_EQ(3 * 512, count(kExtentBytes, kDiskBytes));
    EXPECT_EQ(kExtentBytes, count(2 * kExtentBytes, kDiskBytes));
    disk->seek(kDiskBytes);
    EXPECT_TRUE(throwsError("Internal error: cannot find VMDK extent for position 6144",
                            Props{{"mainURI", kMain}}, [&] { disk->countBytesWithoutData(1); }));
}

TEST_F(DiskRouting, BytesWithoutDataAreThoseOfEachGrainInEveryKindOfDisk) {
    constexpr int kGrains = static_cast<int>(kSmallestDiskBytes / kGrainBytes);
    for (DiskKind const& kind : allDiskKinds()) {
        SCOPED_TRACE(kind.name);
        std::string const name = std::string(kind.name) + ".vmdk";
        yx::P<kelm::CVMDKDisk> const disk = create(kind, name);
        // The last extents of split ones stay without a file.
        for (int const grain : {0, 1, 5, 40, 63})
            writeAt(*disk, grain * kGrainBytes, pattern(100, 1));
        auto const isHere = [&](int grain) {
            disk->seek(grain * kGrainBytes);
            return disk->isGrainWrittenAndIndependentOfParent();
        };
        for (int grain = 0; grain < kGrains; ++grain) {
            disk->seek(grain * kGrainBytes);
            __int64 const bytes = disk->countBytesWithoutData(kSmallestDiskBytes);
            ASSERT_EQ(isHere(grain), bytes == 0) << grain;
            int const end = grain + static_cast<int>(bytes / kGrainBytes);
            for (int empty = grain; empty < end; ++empty)
                EXPECT_FALSE(isHere(empty)) << empty;
        }
    }
}

TEST_F(DiskRouting, FlushOfAReadOnlyDiskDoesNothing) {
    yx::P<kelm::CVMDKDisk> const disk = openRecorded(yx::IIOStream::ReadOnly);
    readAt(*disk, 0, 1);
    recording->clear();
    disk->flushChanges();
    EXPECT_THAT(recording->lines(), IsEmpty());
}

TEST_F(DiskRouting, FlushReachesTheCurrentExtent) {
    yx::P<kelm::CVMDKDisk> const disk = openRecorded(yx::IIOStream::ReadWrite);
    disk->flushChanges();
    EXPECT_THAT(recording->lines(), IsEmpty());
    writeAt(*disk, 0, fromText("x"));
    recording->clear();
    disk->flushChanges();
    EXPECT_EQ(2u, recording->count({FileOperation::Kind::Flush}, "a.vmdk"));
}

TEST_F(DiskRouting, MissingExtentFailsWhenItIsReached) {
    files->deleteFile(uriOf("b.vmdk"), false);
    yx::P<kelm::CVMDKDisk> const disk = open();
    Bytes buffer(kDiskBytes);
    try {
        disk->read(buffer.data(), kDiskBytes);
        FAIL() << "the read succeeded";
    } catch (yx::CIOError const& error) {
        EXPECT_EQ(yx::CIOError::NotFound, error.getIOCode());
    }
    // The cursor stands where the failed step began.
    EXPECT_EQ(kExtentBytes, disk->getPosition());
    EXPECT_NO_THROW(readAt(*disk, 2 * kExtentBytes, 10));
}

TEST_F(DiskRouting, FailedReadLeavesTheCursorAndARepeatSucceeds) {
    Bytes const content = pattern(kDiskBytes, 9);
    writeAt(*open(yx::IIOStream::ReadWrite), 0, content);
    for (int nth = 1; nth < 20; ++nth) {
        yx::P<FaultyFileSystem> const faulty = yx::makeObject<FaultyFileSystem>(files.get());
        kelm::CVMDKDisk disk(faulty.get(), uriOf("disk.vmdk"), yx::IIOStream::ReadOnly, "", 1,
                             nullptr, nullptr);
        faulty->add({.kinds = {FileOperation::Kind::Read, FileOperation::Kind::Open}, .nth = nth});
        IgnoredExceptionCapture const ignored; // a lock file that could not be removed
        Bytes buffer(kDiskBytes);
        try {
            disk.read(buffer.data(), kDiskBytes);
        } catch (yx::CIOError const&) {
            EXPECT_EQ(0, disk.getPosition() % kExtentBytes);
            int const done = static_cast<int>(disk.getPosition());
            disk.read(buffer.data() + done, kDiskBytes - done);
        }
        EXPECT_TRUE(sameBytes(content, buffer));
    }
}

} // namespace
} // namespace test_support

#include <thread>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "host/transfer/raw_source.h"
#include "host/transfer/raw_target.h"
#include "tests/host/host_fixture.h"
#include "tests/support/expect_error.h"
#include "tests/support/loop_device.h"

namespace test_support {
namespace {

using kelm::host::CancelFlag;
using kelm::host::CancelledError;
using kelm::host::FileLock;
using kelm::host::RawSource;
using kelm::host::RawTarget;
using kelm::host::TargetZeros;
using kelm::host::ZeroPolicy;

class RawImage : public HostTest {
protected:
    static long long storedBytes(std::string const& path) {
        struct stat status = {};
        EXPECT_EQ(0, ::stat(path.c_str(), &status));
        return status.st_blocks * 512LL;
    }

    /// Reads to the end in steps and counts the steps that were holes.
    static Bytes readAll(RawSource& source, int stepBytes, int& holes) {
        Bytes all;
        Bytes step(static_cast<std::size_t>(stepBytes));
        holes = 0;
        while (true) {
            bool isHole = false;
            std::fill(step.begin(), step.end(), static_cast<unsigned char>(0xEE));
            int const count = source.readNext(step.data(), stepBytes, isHole);
            if (count == 0)
                return all;
            if (isHole) {
                EXPECT_EQ(Bytes(step.size(), 0xEE), step);
                std::fill(step.begin(), step.end(), static_cast<unsigned char>(0));
            }
            holes += isHole;
            all.insert(all.end(), step.begin(), step.begin() + count);
        }
    }

    /// Expects that a file or a device cannot be overwritten now.
    static void expectInUse(std::string const& message, std::string const& path) {
        try {
            RawTarget(path, true).writeZeros(1);
            FAIL() << "It was written to.";
        } catch (yx::CLockFileError const& error) {
            EXPECT_EQ(error.getMessage().toStdString(), message);
            EXPECT_EQ(propsOf(error), (Props{{"path", path}}));
        }
    }

    std::string makePipe(char const* name) {
        EXPECT_EQ(0, ::mkfifo(pathOf(name).c_str(), 0600));
        return pathOf(name);
    }
};

TEST_F(RawImage, FileIsReadToItsEndAndHolesAreSkipped) {
    Bytes content = zeros(100 * 65536 + 1000);
    Bytes const data = pattern(65536, 1);
    std::copy(data.begin(), data.end(), content.begin() + 50 * 65536);
    RawSource source(putImage("sparse.raw", content));
    EXPECT_EQ(100 * 65536 + 1000, source.getLength());
    int holes = 0;
    EXPECT_TRUE(sameBytes(content, readAll(source, 65536, holes)));
    EXPECT_EQ(100, holes);
    EXPECT_EQ(100 * 65536 + 1000, source.getPosition());
    bool isHole = true;
    EXPECT_EQ(0, source.readNext(content.data(), 10, isHole));
}

TEST_F(RawImage, ContentIsTheSameForStepsOfAnySize) {
    Bytes const content = mixedContent();
    std::string const path = putImage("mixed.raw", content);
    for (int const step : {511, 4096, 65536, 1 << 20, 10 << 20}) {
        RawSource source(path);
        int holes = 0;
        EXPECT_TRUE(sameBytes(content, readAll(source, step, holes))) << step;
    }
}

TEST_F(RawImage, EmptyFileAndFileOfNothingButAHole) {
    int holes = 0;
    RawSource empty(putImage("empty.raw", {}));
    EXPECT_EQ(0, empty.getLength());
    EXPECT_TRUE(readAll(empty, 100, holes).empty());
    RawSource hole(putImage("hole.raw", zeros(1 << 20)));
    EXPECT_EQ(zeros(1 << 20), readAll(hole, 65536, holes));
    EXPECT_EQ(16, holes);
}

TEST_F(RawImage, PipeIsReadInWholeSteps) {
    std::string const path = makePipe("pipe");
    Bytes const content = pattern(30000, 1);
    int const writer = ::open(path.c_str(), O_RDWR);
    std::unique_ptr<RawSource> const source = std::make_unique<RawSource>(path);
    EXPECT_EQ(-1, source->getLength());
    ASSERT_EQ(10000, ::write(writer, content.data(), 10000));
    ASSERT_EQ(20000, ::write(writer, content.data() + 10000, 20000));
    ::close(writer);
    int holes = 0;
    EXPECT_TRUE(sameBytes(content, readAll(*source, 8192, holes)));
    EXPECT_EQ(0, holes);
    EXPECT_EQ(30000, source->getPosition());
}

TEST_F(RawImage, WaitingForAPipeCanBeCancelled) {
    std::string const path = makePipe("pipe");
    int const writer = ::open(path.c_str(), O_RDWR);
    CancelFlag cancel;
    RawSource source(path, &cancel);
    cancel.set();
    Bytes buffer(10);
    bool isHole = false;
    EXPECT_THROW(source.readNext(buffer.data(), 10, isHole), CancelledError);
    ::close(writer);
}

TEST_F(RawImage, WaitingForTheOtherEndOfAPipeCanBeCancelled) {
    std::string const path = makePipe("pipe");
    CancelFlag cancel;
    cancel.set();
    RawSource source(path, &cancel);
    Bytes buffer(10);
    bool isHole = false;
    EXPECT_THROW(source.readNext(buffer.data(), 10, isHole), CancelledError);
    EXPECT_TRUE(std::filesystem::exists(path));
}

TEST_F(RawImage, PipeIsWaitedForFromBothEnds) {
    std::string const path = makePipe("pipe");
    Bytes const content = pattern(300000, 4);
    std::thread writer([&] {
        RawTarget target(path, false);
        target.write(content.data(), static_cast<int>(content.size()));
        target.finish();
    });
    RawSource source(path);
    int holes = 0;
    EXPECT_TRUE(sameBytes(content, readAll(source, 65536, holes)));
    writer.join();
}

TEST_F(RawImage, SourceThatShrinksIsNoticed) {
    std::string const path = putImage("a.raw", pattern(200000, 1));
    RawSource source(path);
    std::filesystem::resize_file(path, 1000);
    Bytes buffer(65536);
    bool isHole = false;
    EXPECT_TRUE(throwsIOError(yx::CIOError::UnexpectedEnd,
                              "The image became shorter while it was read.", {{"path", path}},
                              [&] { source.readNext(buffer.data(), 65536, isHole); }));
}

TEST_F(RawImage, SourceThatCannotBeReadIsRefused) {
    EXPECT_TRUE(
        throwsIOError(yx::CIOError::NotFound, "Cannot open the image: No such file or directory",
                      {{"path", pathOf("none")}}, [&] { RawSource source(pathOf("none")); }));
    EXPECT_TRUE(throwsIOError(yx::CIOError::AccessDenied, "Cannot read the image: Is a directory",
                              {{"path", folder.path()}}, [&] { RawSource source(folder.path()); }));
}

TEST_F(RawImage, ZerosBecomeHolesAndTheLengthIsKept) {
    Bytes const data = pattern(65536, 1);
    RawTarget target(pathOf("out.raw"), false);
    target.writeZeros(5 << 20);
    target.write(data.data(), 65536);
    target.writeZeros((1 << 20) + 7);
    target.finish();
    Bytes expected = zeros((6 << 20) + 65536 + 7);
    std::copy(data.begin(), data.end(), expected.begin() + (5 << 20));
    EXPECT_TRUE(sameBytes(expected, readImage(pathOf("out.raw"))));
    EXPECT_LT(storedBytes(pathOf("out.raw")), 1 << 19);
}

TEST_F(RawImage, UnfinishedFileIsRemoved) {
    {
        RawTarget target(pathOf("out.raw"), false);
        target.write(pattern(100, 1).data(), 100);
        EXPECT_TRUE(std::filesystem::exists(pathOf("out.raw")));
    }
    EXPECT_FALSE(std::filesystem::exists(pathOf("out.raw")));
}

TEST_F(RawImage, ExistingFileIsNotOverwrittenUnasked) {
    putImage("old.raw", pattern(100, 1));
    EXPECT_TRUE(throwsIOError(yx::CIOError::AlreadyExists, "Cannot make the image: File exists",
                              {{"path", pathOf("old.raw")}},
                              [&] { RawTarget target(pathOf("old.raw"), false); }));
    EXPECT_THROW(RawTarget(folder.path(), true), yx::CIOError);
    EXPECT_EQ(pattern(100, 1), readImage(pathOf("old.raw")));
}

TEST_F(RawImage, FileThatSomebodyHasOpenAsADiskIsNotOverwritten) {
    putImage("disk", pattern(100, 1));
    std::filesystem::create_hard_link(pathOf("disk"), pathOf("link"));
    FileLock const reader = FileLock::take(pathOf("disk"), FileLock::Type::Shared);
    expectInUse("The file is in use.", pathOf("link"));
    EXPECT_EQ(pattern(100, 1), readImage(pathOf("disk")));
}

TEST_F(RawImage, FileHasOneWriter) {
    RawTarget first(pathOf("out.raw"), false);
    first.write(pattern(5, 2).data(), 5);
    expectInUse("The file is in use.", pathOf("out.raw"));
    first.finish();
    EXPECT_EQ(pattern(5, 2), readImage(pathOf("out.raw")));
}

TEST_F(RawImage, DeviceThatSomebodyHasAloneIsNotOverwritten) {
    Bytes const before = pattern(1 << 20, 1);
    putImage("backing", before);
    LoopDevice const device(pathOf("backing"));
    if (!device.isThere())
        GTEST_SKIP() << "The system gives no loop device.";
    // As a mounted file system does.
    int const holder = ::open(device.getPath().c_str(), O_RDONLY | O_EXCL | O_CLOEXEC);
    ASSERT_GE(holder, 0);
    expectInUse("The device is in use.", device.getPath());
    ::close(holder);
    EXPECT_EQ(before, readImage(pathOf("backing")));
    EXPECT_NO_THROW(RawTarget(device.getPath(), true));
}

TEST_F(RawImage, ThinDeviceStaysThin) {
    constexpr __int64 kDeviceBytes = 16 << 20;
    Bytes const data = pattern(1 << 20, 2);
    for (bool const isFull : {false, true}) {
        SCOPED_TRACE(isFull);
        std::string const path = pathOf("backing");
        putImage("backing", isFull ? pattern(kDeviceBytes, 1) : zeros(kDeviceBytes));
        LoopDevice const device(path);
        if (!device.isThere())
            GTEST_SKIP() << "The system gives no loop device.";
        TargetZeros done;
        {
            RawTarget target(device.getPath(), true);
            target.writeZeros(5 << 20);
            target.write(data.data(), static_cast<int>(data.size()));
            target.writeZeros((10 << 20) - 512);
            target.finish();
            done = target.getZeros();
        }
        EXPECT_TRUE(
            sameBytes(concat({zeros(5 << 20), data, zeros((10 << 20) - 512),
                              isFull ? slice(pattern(kDeviceBytes, 1), kDeviceBytes - 512, 512)
                                     : zeros(512)}),
                      readImage(path)));
        EXPECT_EQ((15 << 20) - 512, done.punchedBytes + done.leftBytes + done.writtenBytes);
        // The file system may be one that makes no holes.
        if (done.punchedBytes == 0 && isFull)
            GTEST_SKIP() << "Loop devices give nothing back here.";
        EXPECT_LE(done.writtenBytes, 4096);
        EXPECT_LE(storedBytes(path), 2 << 20);
    }
}

TEST_F(RawImage, ZerosThatAreSkippedStayWhatTheyWere) {
    Bytes const before = pattern(100000, 1);
    Bytes const data = pattern(5, 2);
    putImage("old.raw", before);
    RawTarget target(pathOf("old.raw"), true, nullptr, ZeroPolicy::Skip);
    target.writeZeros(10);
    target.write(data.data(), 5);
    target.writeZeros(85);
    target.finish();
    EXPECT_EQ(concat({slice(before, 0, 10), data, slice(before, 15, 85)}),
              readImage(pathOf("old.raw")));
    EXPECT_EQ(95, target.getZeros().leftBytes);
    EXPECT_EQ(0, target.getZeros().punchedBytes + target.getZeros().writtenBytes);
}

TEST_F(RawImage, ZerosThatAreSkippedStayOnADevice) {
    Bytes const before = pattern(1 << 20, 1);
    putImage("backing", before);
    LoopDevice const device(pathOf("backing"));
    if (!device.isThere())
        GTEST_SKIP() << "The system gives no loop device.";
    RawTarget target(device.getPath(), true, nullptr, ZeroPolicy::Skip);
    target.writeZeros(65536);
    target.write(pattern(4096, 2).data(), 4096);
    target.finish();
    EXPECT_EQ(65536, target.getZeros().leftBytes);
    EXPECT_TRUE(sameBytes(concat({slice(before, 0, 65536), pattern(4096, 2),
                                  slice(before, 69632, (1 << 20) - 69632)}),
                          readImage(pathOf("backing"))));
}

TEST_F(RawImage, ZerosThatAreWrittenTakeTheirSpace) {
    RawTarget target(pathOf("out.raw"), false, nullptr, ZeroPolicy::Write);
    target.writeZeros(1 << 20);
    target.finish();
    EXPECT_EQ(zeros(1 << 20), readImage(pathOf("out.raw")));
    EXPECT_GE(storedBytes(pathOf("out.raw")), 1 << 20);
    EXPECT_EQ(1 << 20, target.getZeros().writtenBytes);
}

TEST_F(RawImage, OverwritingLeavesNothingOfTheOldFile) {
    putImage("old.raw", pattern(100000, 1));
    RawTarget target(pathOf("old.raw"), true);
    target.writeZeros(10);
    target.write(pattern(5, 2).data(), 5);
    target.finish();
    EXPECT_EQ(concat({zeros(10), pattern(5, 2)}), readImage(pathOf("old.raw")));
    EXPECT_EQ(10, target.getZeros().punchedBytes);
}

TEST_F(RawImage, FileToBeOverwrittenStaysUntilTheFirstWrite) {
    putImage("old.raw", pattern(100, 1));
    { RawTarget const target(pathOf("old.raw"), true); }
    EXPECT_EQ(pattern(100, 1), readImage(pathOf("old.raw")));
    { RawTarget(pathOf("old.raw"), true).writeZeros(1); }
    EXPECT_FALSE(std::filesystem::exists(pathOf("old.raw")));
}

TEST_F(RawImage, UnfinishedFileBehindALinkIsRemovedAndTheLinkIsNot) {
    putImage("old.raw", pattern(100, 1));
    std::filesystem::create_symlink("old.raw", pathOf("link.raw"));
    { RawTarget(pathOf("link.raw"), true).writeZeros(1); }
    EXPECT_FALSE(std::filesystem::exists(pathOf("old.raw")));
    EXPECT_TRUE(std::filesystem::is_symlink(pathOf("link.raw")));
}

TEST_F(RawImage, PipeGetsEveryZero) {
    std::string const path = makePipe("pipe");
    int const reader = ::open(path.c_str(), O_RDWR | O_NONBLOCK);
    {
        RawTarget target(path, false, nullptr, ZeroPolicy::Skip);
        target.writeZeros(1000);
        target.write(pattern(100, 1).data(), 100);
        target.writeZeros(5);
        target.finish();
        EXPECT_EQ(1005, target.getZeros().writtenBytes);
    }
    Bytes got(5000);
    ssize_t const count = ::read(reader, got.data(), got.size());
    ASSERT_EQ(1105, count);
    got.resize(1105);
    EXPECT_EQ(concat({zeros(1000), pattern(100, 1), zeros(5)}), got);
    ::close(reader);
    EXPECT_TRUE(std::filesystem::exists(path));
}

TEST_F(RawImage, PlacesAreWrittenInAnyOrder) {
    Bytes const content = pattern(200000, 5);
    RawTarget target(pathOf("out.raw"), false);
    ASSERT_TRUE(target.beginWritingAnywhere());
    target.writeAt(150000, content.data() + 150000, 50000);
    target.writeAt(0, content.data(), 100000);
    target.passWritten(100000);
    target.writeZeros(50000);
    target.passWritten(50000);
    target.finish();
    EXPECT_TRUE(
        sameBytes(concat({slice(content, 0, 100000), zeros(50000), slice(content, 150000, 50000)}),
                  readImage(pathOf("out.raw"))));
}

TEST_F(RawImage, PipeHasNoPlaces) {
    std::string const path = makePipe("pipe");
    int const reader = ::open(path.c_str(), O_RDWR | O_NONBLOCK);
    EXPECT_FALSE(RawTarget(path, false).beginWritingAnywhere());
    ::close(reader);
}

TEST_F(RawImage, WaitingForAReaderCanBeCancelled) {
    std::string const path = makePipe("pipe");
    CancelFlag cancel;
    cancel.set();
    EXPECT_THROW(RawTarget(path, false, &cancel), CancelledError);
    EXPECT_TRUE(std::filesystem::exists(path));
}

TEST_F(RawImage, WaitingForAFullPipeCanBeCancelled) {
    std::string const path = makePipe("pipe");
    int const reader = ::open(path.c_str(), O_RDWR | O_NONBLOCK);
    CancelFlag cancel;
    RawTarget target(path, false, &cancel);
    cancel.set();
    EXPECT_THROW(target.writeZeros(10 << 20), CancelledError);
    ::close(reader);
}

TEST_F(RawImage, FullDeviceIsReported) {
    RawTarget target("/dev/full", false);
    EXPECT_TRUE(throwsIOError(yx::CIOError::NoSpace,
                              "Cannot write the image: No space left on device",
                              {{"path", "/dev/full"}}, [&] { target.writeZeros(10); }));
}

} // namespace
} // namespace test_support

#include "host/disk/file_guard.h"

#include <gmock/gmock.h>

#include "tests/host/host_fixture.h"
#include "tests/support/faulty_file_system.h"
#include "tests/support/log_capture.h"
#include "yx/native_file_system.h"

using testing::ElementsAre;

namespace test_support {
namespace {

class FileGuardTest : public HostTest {
protected:
    static void put(yx::IFileSystem& guard, std::string const& name, std::string const& text) {
        unsigned int reserved = 0;
        yx::P<yx::IIOStream> const stream = guard.openFile(uriOf(name), kReadWrite, &reserved);
        stream->write(text.data(), static_cast<int>(text.size()), nullptr);
        stream->close();
    }

    std::string get(std::string const& name) {
        return toText(toBytes(files->getFile(uriOf(name))));
    }
};

TEST_F(FileGuardTest, TakesAwayWhatItMade) {
    putText("old", "old");
    {
        yx::P<FileGuard> const guard = makeGuard();
        put(*guard, "a", "new");
        put(*guard, "b", "new");
        EXPECT_THAT(fileNames(), ElementsAre("a", "b", "old"));
    }
    EXPECT_THAT(fileNames(), ElementsAre("old"));
}

TEST_F(FileGuardTest, KeepsWhatItIsToldToKeep) {
    {
        yx::P<FileGuard> const guard = makeGuard();
        put(*guard, "a", "new");
        guard->keep();
        // What was made can still be written to, and what is made now stays as well.
        put(*guard, "a", "NEW");
        put(*guard, "b", "late");
    }
    EXPECT_EQ("NEW", get("a"));
    EXPECT_EQ("late", get("b"));
}

TEST_F(FileGuardTest, TouchesNothingThatWasThereBefore) {
    putText("old", "old");
    yx::P<FileGuard> const guard = makeGuard();
    for (auto const& action :
         {std::function<void()>([&] { put(*guard, "old", "new"); }),
          std::function<void()>([&] { guard->deleteFile(uriOf("old"), true); })})
        EXPECT_TRUE(throwsIOError(yx::CIOError::AlreadyExists, "The file exists already.",
                                  {{"uri", "mem:///disks/old"}}, action));
    EXPECT_EQ("old", get("old"));
    unsigned int reserved = 0;
    EXPECT_EQ(3, guard->openFile(uriOf("old"), kReadOnly, &reserved)->getLength());
}

TEST_F(FileGuardTest, OverwritesOnlyWhereItMay) {
    putText("old", "a long old text");
    yx::P<FileGuard> const guard = makeGuard(true);
    put(*guard, "old", "new");
    EXPECT_EQ("new", get("old"));
    guard->keep();
}

TEST_F(FileGuardTest, FailedReplacementIsTakenAwayToo) {
    putText("old", "old");
    put(*makeGuard(true), "old", "new");
    EXPECT_THAT(fileNames(), ElementsAre());
}

TEST_F(FileGuardTest, ProtectedFilesStayWhateverIsAllowed) {
    putText("old", "old");
    yx::P<FileGuard> const guard = makeGuard(true);
    guard->protect({yx::CURI("MEM:///disks/./old")});
    for (auto const& action :
         {std::function<void()>([&] { put(*guard, "old", "new"); }),
          std::function<void()>([&] { guard->deleteFile(uriOf("old"), true); })})
        EXPECT_TRUE(throwsIOError(yx::CIOError::NotAllowed, "The file is being read.",
                                  {{"uri", "mem:///disks/old"}}, action));
    EXPECT_EQ("old", get("old"));
}

TEST_F(FileGuardTest, KnowsWhetherItsFilesAreStillThere) {
    yx::P<FileGuard> const guard = makeGuard();
    put(*guard, "a", "new");
    put(*guard, "b", "new");
    guard->deleteFile(uriOf("b"), false);
    EXPECT_NO_THROW(guard->verifyFilesAreThere());
    files->deleteFile(uriOf("a"), false);
    EXPECT_TRUE(throwsIOError(yx::CIOError::NotFound,
                              "The file was deleted while it was being written.",
                              {{"uri", "mem:///disks/a"}}, [&] { guard->verifyFilesAreThere(); }));
}

TEST_F(FileGuardTest, KnowsAFileOfTheSystemFromAnotherOfItsName) {
    yx::P<yx::CNativeFileSystem> const native = yx::makeObject<yx::CNativeFileSystem>();
    std::string const uri = folder.uri("a").toString(true).toStdString();
    {
        yx::P<FileGuard> const guard = yx::makeObject<FileGuard>(native.get(), false);
        unsigned int reserved = 0;
        yx::P<yx::IIOStream> stream = guard->openFile(folder.uri("a"), kReadWrite, &reserved);
        stream->write("new", 3, nullptr);
        EXPECT_NO_THROW(guard->verifyFilesAreThere());
        std::filesystem::remove(pathOf("a"));
        EXPECT_TRUE(throwsIOError(yx::CIOError::NotFound,
                                  "The file was deleted while it was being written.",
                                  {{"uri", uri}}, [&] { guard->verifyFilesAreThere(); }));
        std::ofstream(pathOf("a")) << "another";
        EXPECT_TRUE(
            throwsIOError(yx::CIOError::IOFailure,
                          "The file was replaced by another one while it was being written.",
                          {{"uri", uri}}, [&] { guard->verifyFilesAreThere(); }));
        stream->close();
    }
    // What is not its own it does not take away.
    EXPECT_EQ(fromText("another"), readImage(pathOf("a")));
}

TEST_F(FileGuardTest, LeftLockFileIsNobodysProperty) {
    putText("disk.vmdk.lock", "");
    {
        yx::P<FileGuard> const guard = makeGuard();
        EXPECT_NO_THROW(put(*guard, "disk.vmdk.lock", ""));
    }
    EXPECT_THAT(fileNames(), ElementsAre("disk.vmdk.lock"));
}

TEST_F(FileGuardTest, FileThatCannotBeTakenAwayIsLogged) {
    LogCapture log;
    yx::P<FaultyFileSystem> const faulty = yx::makeObject<FaultyFileSystem>(files.get());
    faulty->add({.kinds = {FileOperation::Kind::Delete}, .file = "a"});
    {
        yx::P<FileGuard> const guard = yx::makeObject<FileGuard>(faulty.get(), false);
        put(*guard, "a", "new");
        put(*guard, "b", "new");
    }
    EXPECT_THAT(fileNames(), ElementsAre("a"));
    ASSERT_EQ(1U, log.entries().size());
    EXPECT_EQ("Cannot delete the unfinished file 'mem:///disks/a'.", log.entries()[0].message);
}

TEST_F(FileGuardTest, AbandonedDiskLeavesNothingThoughItMadeExtentsLate) {
    {
        yx::P<FileGuard> const guard = makeGuard();
        NewDisk request;
        request.sizeBytes = kSmallestDiskBytes;
        request.fileSizeLimitBytes = kSplitLimit;
        request.createExtentFilesOnDemand = true;
        std::unique_ptr<SafeDisk> const disk =
            SafeDisk::create(guard.get(), uriOf("disk.vmdk"), request);
        writeTo(*disk, kSmallestDiskBytes - 10, pattern(10, 1));
        disk->flush();
        EXPECT_THAT(fileNames(), ElementsAre("disk-s00000.vmdk", "disk-s00002.vmdk", "disk.vmdk",
                                             "disk.vmdk.lock"));
    }
    EXPECT_THAT(fileNames(), ElementsAre());
}

TEST_F(FileGuardTest, StopsTheMakingOfFilesWhenItIsTold) {
    kelm::host::CancelFlag flag;
    {
        yx::P<FileGuard> const guard = yx::makeObject<FileGuard>(files.get(), false, &flag);
        put(*guard, "a", "new");
        flag.set();
        EXPECT_THROW(put(*guard, "b", "new"), kelm::host::CancelledError);
        // What is there already can still be brought to an end.
        EXPECT_NO_THROW(put(*guard, "a", "NEW"));
        EXPECT_THAT(fileNames(), ElementsAre("a"));
    }
    EXPECT_THAT(fileNames(), ElementsAre());
}

} // namespace
} // namespace test_support

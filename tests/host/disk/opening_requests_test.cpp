#include <filesystem>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/host/host_fixture.h"
#include "tests/support/recording_file_system.h"
#include "tests/support/temp_directory.h"
#include "yx/native_file_system.h"

// What opening a disk asks of its file system. Each request takes its way where files are not those
// of this machine.

namespace test_support {
namespace opening_requests_test {

namespace {

using kelm::host::FileLock;
using testing::ElementsAre;
using Kind = FileOperation::Kind;

/// All that reaches a file system; `seek` does not.
FileOperationKinds const kRequests{Kind::Open, Kind::Exists, Kind::Delete,    Kind::GetLength,
                                   Kind::Read, Kind::Write,  Kind::SetLength, Kind::Flush,
                                   Kind::Lock, Kind::Close};

class OpeningRequests : public HostTest {
protected:
    std::unique_ptr<SafeDisk> openOver(yx::IFileSystem* fileSystem, char const* password = "") {
        return std::make_unique<SafeDisk>(fileSystem, uriOf("disk.vmdk"), kReadOnly, password);
    }

    yx::P<RecordingFileSystem> recorded = yx::makeObject<RecordingFileSystem>(files.get());
};

TEST_F(OpeningRequests, OfADiskInOneFile) {
    createSafe(kindNamed("plain"));
    std::unique_ptr<SafeDisk> disk = openOver(recorded.get());
    EXPECT_THAT(recorded->lines(kRequests),
                ElementsAre("exists disk.vmdk", "exists disk.vmdk.lock", "open disk.vmdk.lock rw",
                            "lock disk.vmdk.lock 0+2 shared", "get-length disk.vmdk.lock",
                            "open disk.vmdk r", "get-length disk.vmdk", "read disk.vmdk 0+49152"));
    recorded->clear();
    disk.reset();
    EXPECT_THAT(recorded->lines(kRequests),
                ElementsAre("lock disk.vmdk.lock 1+1 exclusive", "get-length disk.vmdk.lock",
                            "write disk.vmdk.lock 0+32", "open disk.vmdk.lock r",
                            "read disk.vmdk.lock 0+33", "close disk.vmdk.lock",
                            "delete disk.vmdk.lock", "close disk.vmdk.lock", "close disk.vmdk"));
}

TEST_F(OpeningRequests, OfEveryKindAreFew) {
    for (DiskKind const& kind : allDiskKinds()) {
        SCOPED_TRACE(kind.name);
        createSafe(kind);
        recorded->clear();
        std::unique_ptr<SafeDisk> const disk = openOver(recorded.get(), kind.password);
        EXPECT_LT(recorded->count(kRequests), 12U);
        EXPECT_EQ(1U, recorded->count({Kind::Open}, "disk.vmdk.lock"));
        EXPECT_EQ(1U, recorded->count({Kind::Open}, "disk.vmdk"));
        files = yx::makeObject<yx::CMemoryFileSystem>();
        recorded = yx::makeObject<RecordingFileSystem>(files.get());
    }
}

/// However many extents there are.
TEST_F(OpeningRequests, OfASplitDiskDoNotGrowWithIt) {
    DiskKind const kind = kindNamed("splitOnDemand");
    createSafe(kind, "small.vmdk", "", 2 * kSplitLimit);
    createSafe(kind, "large.vmdk", "", 100 * kSplitLimit);
    std::size_t counts[2] = {};
    for (int i = 0; i < 2; ++i) {
        recorded->clear();
        SafeDisk const disk(recorded.get(), uriOf(i == 0 ? "small.vmdk" : "large.vmdk"), kReadOnly,
                            "");
        counts[i] = recorded->count(kRequests);
    }
    EXPECT_EQ(counts[0], counts[1]);
}

/// Disks in a folder of the operating system.
class NativeOpeningRequests : public testing::Test {
protected:
    void SetUp() override {
        yx::P<FileGuard> const guard = yx::makeObject<FileGuard>(native.get(), false);
        guard->keep();
        SafeDisk::create(guard.get(), uri, requestFor(kindNamed("plain")));
    }

    std::unique_ptr<SafeDisk> open(yx::IFileSystem* fileSystem) {
        return std::make_unique<SafeDisk>(fileSystem, uri, kReadOnly, "");
    }

    static void readFrom(SafeDisk& disk) {
        char first = 0;
        disk.read(0, &first, 1);
    }

    TempDirectory folder;
    yx::CURI uri = folder.uri("disk.vmdk");
    std::string path = yx::toNativePath(uri).toStdString();
    yx::P<yx::CNativeFileSystem> native = yx::makeObject<yx::CNativeFileSystem>();
    yx::P<RecordingFileSystem> recorded = yx::makeObject<RecordingFileSystem>(native.get());
};

TEST_F(NativeOpeningRequests, OpenTheFileOnceForItsLockAndAllReading) {
    std::unique_ptr<SafeDisk> disk = open(recorded.get());
    readFrom(*disk);
    EXPECT_EQ(1U, recorded->count({Kind::Open}, "disk.vmdk"));
    EXPECT_FALSE(FileLock::tryTake(path, FileLock::Type::Exclusive));
    EXPECT_TRUE(FileLock::tryTake(path, FileLock::Type::Shared)->isHeld());
    disk.reset();
    EXPECT_TRUE(FileLock::tryTake(path, FileLock::Type::Exclusive)->isHeld());
}

/// The system says which file has the name, and the mark is not read back.
TEST_F(NativeOpeningRequests, OpenTheLockFileOnce) {
    open(recorded.get());
    EXPECT_EQ(1U, recorded->count({Kind::Open}, "disk.vmdk.lock"));
    EXPECT_EQ(0U, recorded->count({Kind::Read}, "disk.vmdk.lock"));
    EXPECT_FALSE(native->fileExists(folder.uri("disk.vmdk.lock")));
}

TEST_F(NativeOpeningRequests, AReaderNoticesThatTheFileWasReplacedOrIsGone) {
    for (bool const isReplaced : {true, false}) {
        std::unique_ptr<SafeDisk> disk = open(native.get());
        std::filesystem::rename(path, path + ".kept");
        if (isReplaced)
            std::filesystem::copy(path + ".kept", path);
        EXPECT_TRUE(throwsIOError(
            isReplaced ? yx::CIOError::IOFailure : yx::CIOError::NotFound,
            isReplaced ? "The file was replaced by another one while the disk was open."
                       : "Cannot open the file: No such file or directory",
            {{"uri", uri.toString(true).toStdString()}}, [&] { readFrom(*disk); }));
        std::filesystem::rename(path + ".kept", path);
        EXPECT_NO_THROW(readFrom(*disk));
    }
}

TEST_F(OpeningRequests, AFileOnDemandIsMadeWithTwoFlushes) {
    createSafe(kindNamed("splitOnDemand"));
    std::unique_ptr<SafeDisk> const disk =
        std::make_unique<SafeDisk>(recorded.get(), uriOf("disk.vmdk"), kReadWrite, "");
    writeTo(*disk, 0, pattern(kGrainBytes, 3));
    recorded->clear();
    writeTo(*disk, kSplitLimit, pattern(kGrainBytes, 3));
    disk->flush();
    // Two more bring what is written, and then its tables.
    EXPECT_EQ(4U, recorded->count({Kind::Flush}, "disk-s00001.vmdk"));
    EXPECT_EQ(2U, recorded->count({Kind::Flush}, "disk-s00000.vmdk"));
    EXPECT_EQ(0U, recorded->count({Kind::Delete}));
}

} // namespace

} // namespace opening_requests_test
} // namespace test_support

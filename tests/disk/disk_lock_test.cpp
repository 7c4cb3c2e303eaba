#include <gmock/gmock.h>

#include "tests/support/child_process.h"
#include "tests/support/disk_fixture.h"
#include "tests/support/faulty_file_system.h"
#include "tests/support/temp_directory.h"

using testing::ElementsAre;

namespace test_support {
namespace {

using DiskLock = DiskTest;

constexpr auto kReadOnly = yx::IIOStream::ReadOnly;
constexpr auto kReadWrite = yx::IIOStream::ReadWrite;

TEST_F(DiskLock, LockFileStandsBesideTheMainFileWhileADiskIsOpen) {
    create({});
    for (auto const access : {kReadOnly, kReadWrite}) {
        yx::P<kelm::CVMDKDisk> disk = open(access);
        EXPECT_THAT(fileNames(), ElementsAre("disk.vmdk", "disk.vmdk.lock"));
        disk.reset();
        EXPECT_THAT(fileNames(), ElementsAre("disk.vmdk"));
    }
}

TEST_F(DiskLock, WriterIsAloneAndReadersShare) {
    create({});
    {
        yx::P<kelm::CVMDKDisk> const writer = open(kReadWrite);
        EXPECT_THROW(open(kReadOnly), yx::CLockFileError);
        EXPECT_THROW(open(kReadWrite), yx::CLockFileError);
    }
    yx::P<kelm::CVMDKDisk> const reader = open(kReadOnly);
    EXPECT_NO_THROW(open(kReadOnly));
    EXPECT_THROW(open(kReadWrite), yx::CLockFileError);
}

TEST_F(DiskLock, AccessOfNoNameSharesLikeAReader) {
    create({});
    yx::P<kelm::CVMDKDisk> const reader = open(kReadOnly);
    try {
        open(static_cast<yx::IIOStream::Access>(2));
    } catch (yx::CLockFileError const& error) {
        FAIL() << error.what();
    } catch (yx::CError const&) {
        // What the file system makes of that access is its own affair; the lock was had.
    }
}

/// A file system on which no lock file can be made.
yx::P<FaultyFileSystem> withoutLockFiles(yx::IFileSystem* files) {
    yx::P<FaultyFileSystem> const faulty = yx::makeObject<FaultyFileSystem>(files);
    faulty->add({.kinds = {FileOperation::Kind::Open},
                 .sticky = true,
                 .code = yx::CIOError::AccessDenied,
                 .file = "disk.vmdk.lock"});
    return faulty;
}

TEST_F(DiskLock, ReaderGoesWithoutALockWhereNoneCanBeMade) {
    create({});
    yx::P<FaultyFileSystem> const faulty = withoutLockFiles(files.get());
    kelm::CVMDKDisk disk(faulty.get(), uriOf("disk.vmdk"), kReadOnly, "", 1, nullptr, nullptr);
    EXPECT_TRUE(sameBytes(zeros(10), readAt(disk, 0, 10)));
}

TEST_F(DiskLock, ReaderFailsOnALockFileThatItCannotTake) {
    create({});
    putText("disk.vmdk.lock", "");
    yx::P<FaultyFileSystem> const faulty = withoutLockFiles(files.get());
    EXPECT_THROW(
        kelm::CVMDKDisk(faulty.get(), uriOf("disk.vmdk"), kReadOnly, "", 1, nullptr, nullptr),
        yx::CLockFileError);
}

TEST_F(DiskLock, OnlyReadersAreLetOff) {
    create({});
    for (int const access : {3, 2}) {
        yx::P<FaultyFileSystem> const faulty = withoutLockFiles(files.get());
        EXPECT_THROW(kelm::CVMDKDisk(faulty.get(), uriOf("disk.vmdk"),
                                     static_cast<yx::IIOStream::Access>(access), "", 1, nullptr,
                                     nullptr),
                     yx::CLockFileError);
    }
}

TEST_F(DiskLock, LockOfTheParentIsShared) {
    create({}, "parent.vmdk");
    unsigned int const id = open(kReadOnly, "", "parent.vmdk")->getDescriptor()->getContentID();
    create({}, "a.vmdk", 0, "parent.vmdk", id);
    create({}, "b.vmdk", 0, "parent.vmdk", id);
    yx::P<kelm::CVMDKDisk> const a = open(kReadWrite, "", "a.vmdk");
    yx::P<kelm::CVMDKDisk> const b = open(kReadWrite, "", "b.vmdk");
    readAt(*a, 0, 1);
    readAt(*b, 0, 1);
    EXPECT_THROW(open(kReadWrite, "", "parent.vmdk"), yx::CLockFileError);
}

/// Disks of the operating system, for several processes.
class DiskLockOfProcesses : public testing::Test {
protected:
    yx::P<kelm::CVMDKDisk> open(yx::IIOStream::Access access) {
        return yx::makeObject<kelm::CVMDKDisk>(files.get(), directory.uri("disk.vmdk"), access, "",
                                               1, nullptr, nullptr);
    }

    void create() {
        kelm::CVMDKDisk::create(files.get(), directory.uri("disk.vmdk"), 0, "", false, 1, -1, "",
                                kNoParentID, false);
    }

    TempDirectory directory;
    yx::P<yx::CNativeFileSystem> files = yx::makeObject<yx::CNativeFileSystem>();
};

TEST_F(DiskLockOfProcesses, OtherProcessIsKeptOutUntilTheWriterEnds) {
    create();
    ChildProcess child([&](Line const& line) {
        yx::P<kelm::CVMDKDisk> disk = open(kReadWrite);
        disk->write("from the child", 14);
        line.send('o');
        line.receive();
        disk.reset();
        line.send('c');
        line.receive();
        return 0;
    });
    ASSERT_EQ('o', child.line().receive());
    EXPECT_THROW(open(kReadOnly), yx::CLockFileError);
    child.line().send('e');
    ASSERT_EQ('c', child.line().receive());
    char text[14];
    open(kReadOnly)->read(text, 14);
    EXPECT_EQ("from the child", std::string(text, 14));
    child.line().send('e');
    EXPECT_EQ(0, child.wait());
}

TEST_F(DiskLockOfProcesses, KilledWriterBlocksNobody) {
    create();
    ChildProcess child([&](Line const& line) {
        yx::P<kelm::CVMDKDisk> const disk = open(kReadWrite);
        disk->write("flushed", 7);
        disk->flushChanges();
        line.send('o');
        line.receive();
        return 0;
    });
    ASSERT_EQ('o', child.line().receive());
    child.kill();
    yx::P<kelm::CVMDKDisk> const disk = open(kReadWrite);
    char text[7];
    disk->read(text, 7);
    EXPECT_EQ("flushed", std::string(text, 7));
}

} // namespace
} // namespace test_support

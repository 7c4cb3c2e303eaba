#include "host/disk/disk_files.h"
#include "host/disk/safe_disk.h"
#include "tests/support/expect_error.h"
#include "tests/support/safe_disks.h"
#include "tests/support/store_fixture.h"

namespace {

using kelm::host::FileGuard;
using kelm::host::NewDisk;
using kelm::host::SafeDisk;
using test_support::throwsInvalidArg;
using test_support::throwsIOError;

/// Disks in another store than the operating system's.
class StoredDiskTest : public test_support::StoreTest {
protected:
    static NewDisk request() {
        NewDisk wanted;
        wanted.sizeBytes = test_support::kSmallestDiskBytes;
        return wanted;
    }

    std::unique_ptr<SafeDisk> create(std::string const& name, NewDisk const& wanted,
                                     bool overwrite = false) {
        guard = yx::makeObject<FileGuard>(files.get(), overwrite);
        return SafeDisk::create(guard.get(), uri(name), wanted);
    }

    void make(std::string const& name) {
        std::unique_ptr<SafeDisk> disk = create(name, request());
        test_support::writeGrain(*disk, 0, test_support::Bytes(test_support::kGrainBytes, 7));
        disk->markComplete();
        disk.reset();
        guard->verifyFilesAreThere();
        guard->keep();
        guard.reset();
    }

    std::unique_ptr<SafeDisk> openDisk(std::string const& name, yx::IIOStream::Access access) {
        return std::make_unique<SafeDisk>(files.get(), uri(name), access, yx::String());
    }

    yx::P<FileGuard> guard;
};

TEST_F(StoredDiskTest, IsLockedFromItsFirstMoment) {
    std::unique_ptr<SafeDisk> disk = create("a.vmdk", request());
    // By its file, beside its lock file.
    EXPECT_FALSE(kelm::host::FileLock::tryTake((folder.path() / "a.vmdk").string(),
                                               kelm::host::FileLock::Type::Shared));
    EXPECT_THROW(openDisk("a.vmdk", yx::IIOStream::ReadOnly), yx::CLockFileError);
    disk.reset();
    guard.reset();
    EXPECT_FALSE(isThere("a.vmdk"));
}

TEST_F(StoredDiskTest, IsSharedByReadersAlone) {
    make("a.vmdk");
    std::unique_ptr<SafeDisk> const disk = openDisk("a.vmdk", yx::IIOStream::ReadOnly);
    EXPECT_EQ(test_support::readGrain(*openDisk("a.vmdk", yx::IIOStream::ReadOnly), 0),
              test_support::Bytes(test_support::kGrainBytes, 7));
    EXPECT_THROW(openDisk("a.vmdk", yx::IIOStream::ReadWrite), yx::CLockFileError);
    EXPECT_FALSE(kelm::host::FileLock::tryTake((folder.path() / "a.vmdk").string(),
                                               kelm::host::FileLock::Type::Exclusive));
}

TEST_F(StoredDiskTest, ThatIsReplacedWhileItIsMadeIsNoSuccess) {
    std::unique_ptr<SafeDisk> disk = create("a.vmdk", request());
    std::filesystem::remove(folder.path() / "a.vmdk");
    put("a.vmdk", "another");
    disk.reset();
    EXPECT_TRUE(throwsIOError(yx::CIOError::IOFailure,
                              "The file was replaced by another one while it was being written.",
                              {{"uri", "test:/a.vmdk"}}, [&] { guard->verifyFilesAreThere(); }));
    guard.reset();
    EXPECT_EQ(contentOf("a.vmdk"), "another");
}

TEST_F(StoredDiskTest, ThatIsThereIsNotReplacedUnasked) {
    make("a.vmdk");
    EXPECT_TRUE(throwsIOError(yx::CIOError::AlreadyExists, "The file exists already.",
                              {{"uri", "test:/a.vmdk"}}, [&] { create("a.vmdk", request()); }));
    std::unique_ptr<SafeDisk> const reader = openDisk("a.vmdk", yx::IIOStream::ReadOnly);
    EXPECT_THROW(create("a.vmdk", request(), true), yx::CLockFileError);
}

TEST_F(StoredDiskTest, IsFoundByItsContent) {
    make("a.vmdk");
    put("b", "no disk");
    EXPECT_TRUE(kelm::host::isDiskMainFile(uri("a.vmdk")));
    EXPECT_FALSE(kelm::host::isDiskMainFile(uri("b")));
    EXPECT_FALSE(kelm::host::isDiskMainFile(uri("none")));
    EXPECT_FALSE(kelm::host::isDiskMainFile(uri("")));
    EXPECT_EQ(kelm::host::measureFile(uri("b")).lengthBytes, 7);
    EXPECT_FALSE(kelm::host::measureFile(uri("none")).exists);
}

TEST_F(StoredDiskTest, ReachesNothingOutsideItsFolderByALink) {
    std::filesystem::create_directories(folder.path() / "in");
    std::filesystem::create_directories(folder.path() / "out");
    NewDisk wanted = request();
    wanted.fileSizeLimitBytes = test_support::kSmallestDiskBytes / 2;
    std::unique_ptr<SafeDisk> disk = create("in/a.vmdk", wanted);
    disk->markComplete();
    std::vector<yx::CURI> const parts = disk->listFiles();
    disk.reset();
    guard->keep();
    ASSERT_GT(parts.size(), 1U);
    std::string const part = "in/" + parts.back().getName().toStdString();
    std::filesystem::rename(folder.path() / part, folder.path() / "out/part");
    std::filesystem::create_symlink("../out/part", folder.path() / part);
    EXPECT_TRUE(throwsIOError(
        yx::CIOError::NotAllowed,
        "The disk names a file outside of its folder. If you trust the disk, allow that file's "
        "folder (--allow-path, allow-path=).",
        {{"uri", "test:/" + part}, {"folder", "test:/in/"}},
        [&] { openDisk("in/a.vmdk", yx::IIOStream::ReadOnly); }));
    // A name that leads to the folder by another way is the folder.
    std::filesystem::remove(folder.path() / part);
    std::filesystem::rename(folder.path() / "out/part", folder.path() / part);
    std::filesystem::create_directory_symlink("in", folder.path() / "also");
    openDisk("also/a.vmdk", yx::IIOStream::ReadOnly);
}

TEST_F(StoredDiskTest, KeepsToWhatTheStoreLetsAFileBecome) {
    store->setMaxFileLengthBytes(test_support::kSmallestDiskBytes);
    EXPECT_TRUE(throwsInvalidArg(
        "SafeDisk::create",
        "A file of the disk could outgrow the " + std::to_string(test_support::kSmallestDiskBytes) +
            " bytes that a file may have there. Split the disk over several files.",
        {{"uri", "test:/a.vmdk"}}, [&] { create("a.vmdk", request()); }));
    NewDisk wanted = request();
    wanted.fileSizeLimitBytes = 2 * test_support::kSmallestDiskBytes;
    EXPECT_THROW(create("a.vmdk", wanted), yx::CInvalidArgError);
    EXPECT_FALSE(isThere("a.vmdk"));

    store->setMaxFileLengthBytes(0x7fffffffffffffff);
    make("a.vmdk");
    store->setMaxFileLengthBytes(
        static_cast<__int64>(std::filesystem::file_size(folder.path() / "a.vmdk")));
    std::unique_ptr<SafeDisk> const disk = openDisk("a.vmdk", yx::IIOStream::ReadWrite);
    auto const length = std::to_string(std::filesystem::file_size(folder.path() / "a.vmdk"));
    EXPECT_TRUE(throwsIOError(
        yx::CIOError::NoSpace,
        "The file could grow beyond the " + length +
            " bytes that a file may have there. Copy the disk to one that is split over several "
            "files.",
        {{"uri", "test:/a.vmdk"}, {"length", length}}, [&] {
            test_support::writeGrain(*disk, 1, test_support::Bytes(test_support::kGrainBytes, 8));
        }));
}

} // namespace

#include "host/backups/disk_remains.h"

#include <filesystem>
#include <fstream>

#include <gmock/gmock.h>

#include "host/backups/disk_note.h"
#include "host/disk/file_locks.h"
#include "host/store/file_names.h"
#include "kelm/kelm.h"
#include "tests/support/expect_error.h"
#include "tests/support/safe_disks.h"
#include "tests/support/temp_directory.h"
#include "yx/lock_file.h"
#include "yx/native_file_system.h"

namespace test_support {
namespace disk_remains_test {
namespace {

namespace fs = std::filesystem;

using kelm::host::deleteDiskRemains;
using kelm::host::DurableFiles;
using testing::ElementsAre;

/// Steps of which some are done, and the rest never.
class FewSteps : public DurableFiles {
public:
    int left = 1 << 30;

    void remove(yx::CURI const& file) override {
        if (left-- == 0)
            throw yx::CIOError(yx::CIOError::IOFailure, "Ended.", yx::CProps(), nullptr);
        DurableFiles::remove(file);
    }
};

/// Beside what is left of "new.vmdk" there is "old.vmdk", a split disk.
class DiskRemainsTest : public ::testing::Test {
protected:
    DiskRemainsTest() { make("old.vmdk"); }

    std::string path(std::string const& name) const { return (folder.path() / name).string(); }
    yx::CURI uri(std::string const& name) const { return kelm::host::uriFromArgument(path(name)); }

    void make(std::string const& name) {
        NewDisk request;
        request.sizeBytes = kSmallestDiskBytes;
        request.fileSizeLimitBytes = 5 << 20;
        auto const guard = yx::makeObject<FileGuard>(files.get(), false);
        guard->keep();
        SafeDisk::create(guard.get(), uri(name), request);
    }

    void write(std::string const& name, std::string const& content) const {
        std::ofstream(path(name), std::ios::binary) << content;
    }

    /// Makes a disk one whose making was ended: its first sector was never written.
    void seal(std::string const& name) const {
        std::fstream file(path(name), std::ios::binary | std::ios::in | std::ios::out);
        file << std::string(kelm::kSectorSizeBytes, '\0');
    }

    void leaveRemains() {
        make("new.vmdk");
        seal("new.vmdk");
        write("new.vmdk.digests", "");
        write("new.vmdk.lock", "");
    }

    std::vector<yx::CURI> deleteRemains(std::string const& name = "new.vmdk") {
        return deleteDiskRemains(files.get(), steps, uri(name));
    }

    void expectRefusal(std::string const& name) {
        std::vector<std::string> const before = names();
        EXPECT_TRUE(throwsIOError(
            yx::CIOError::NotAllowed, "The file is no remains of a disk that was being made.",
            {{"uri", uri(name).toString(true).toStdString()}}, [&] { deleteRemains(name); }));
        EXPECT_EQ(before, names());
    }

    void expectNothingIsLeft(std::string const& name = "new.vmdk") {
        EXPECT_TRUE(throwsIOError(yx::CIOError::NotFound, "The disk does not exist.",
                                  {{"uri", uri(name).toString(true).toStdString()}},
                                  [&] { deleteRemains(name); }));
    }

    std::vector<std::string> names() const {
        std::vector<std::string> found;
        for (fs::directory_entry const& entry : fs::directory_iterator(folder.path()))
            found.push_back(entry.path().filename().string());
        std::sort(found.begin(), found.end());
        return found;
    }

    TempDirectory folder;
    yx::P<yx::CNativeFileSystem> files = yx::makeObject<yx::CNativeFileSystem>();
    FewSteps steps;
};

TEST_F(DiskRemainsTest, GoWithAllOfTheirFiles) {
    leaveRemains();
    EXPECT_THAT(deleteRemains(), ElementsAre(uri("new.vmdk"), uri("new-s00000.vmdk"),
                                             uri("new-s00001.vmdk"), uri("new.vmdk.digests")));
    EXPECT_THAT(names(), ElementsAre("old-s00000.vmdk", "old-s00001.vmdk", "old.vmdk"));
    expectNothingIsLeft();
}

TEST_F(DiskRemainsTest, OfTheFirstMomentsGo) {
    for (std::string const& content : {std::string(), std::string(10, '\0'), std::string(512, '\0'),
                                       std::string(512, '\0') + "text"}) {
        write("new.vmdk", content);
        write("new-s00000.vmdk", "");
        EXPECT_THAT(deleteRemains(), ElementsAre(uri("new.vmdk"), uri("new-s00000.vmdk")));
        EXPECT_THAT(names(), ElementsAre("old-s00000.vmdk", "old-s00001.vmdk", "old.vmdk"));
    }
}

TEST_F(DiskRemainsTest, CanBeKilledAtEveryStepAndGoesOn) {
    for (int left = 0; left < 4; ++left) {
        leaveRemains();
        steps.left = left;
        EXPECT_THROW(deleteRemains(), yx::CIOError);
        steps.left = 1 << 30;
        EXPECT_EQ(4U - static_cast<unsigned int>(left), deleteRemains().size());
        EXPECT_THAT(names(), ElementsAre("old-s00000.vmdk", "old-s00001.vmdk", "old.vmdk"));
    }
}

TEST_F(DiskRemainsTest, LeaveNoLockFileWhereNothingIsLeft) {
    write("new.vmdk.lock", "");
    expectNothingIsLeft();
    EXPECT_THAT(names(), ElementsAre("old-s00000.vmdk", "old-s00001.vmdk", "old.vmdk"));
}

TEST_F(DiskRemainsTest, AreNoDisksAndNoOtherFiles) {
    expectRefusal("old.vmdk");
    write("letter.vmdk", "a letter to somebody");
    expectRefusal("letter.vmdk");
    write("late.vmdk", std::string(511, '\0') + "x");
    expectRefusal("late.vmdk");
    fs::create_directory(path("folder.vmdk"));
    expectRefusal("folder.vmdk");
}

TEST_F(DiskRemainsTest, AreNoFilesOfAnotherDiskThatHasSuchNames) {
    leaveRemains();
    fs::rename(path("old.vmdk"), path("renamed.vmdk"));
    write("old.vmdk", "");
    EXPECT_THAT(deleteRemains("old.vmdk"), ElementsAre(uri("old.vmdk")));
    expectNothingIsLeft("old.vmdk");
    write("new-s7.vmdk", "a letter to somebody");
    fs::create_directory(path("new-s8.vmdk"));
    deleteRemains();
    EXPECT_THAT(names(), ElementsAre("new-s7.vmdk", "new-s8.vmdk", "old-s00000.vmdk",
                                     "old-s00001.vmdk", "renamed.vmdk"));
}

TEST_F(DiskRemainsTest, StayWhileSomebodyMakesTheDisk) {
    {
        auto const locks = yx::makeObject<kelm::host::FileLocks>();
        locks->makeFile(uri("new.vmdk"));
        EXPECT_THROW(deleteRemains(), yx::CLockFileError);
        EXPECT_TRUE(fs::exists(path("new.vmdk")));
    }
    {
        yx::CLockFile const lock(files.get(), kelm::CVMDKDisk::getLockFileURI(uri("new.vmdk")),
                                 yx::CLockFile::Exclusive, false, true);
        EXPECT_THROW(deleteRemains(), yx::CLockFileError);
        EXPECT_TRUE(fs::exists(path("new.vmdk")));
    }
    EXPECT_THAT(deleteRemains(), ElementsAre(uri("new.vmdk")));
}

TEST_F(DiskRemainsTest, OfADiskThatIsBeingRenamedOrDeletedAreNotMistaken) {
    kelm::host::DiskNote note;
    note.files.emplace_back(uri("old.vmdk"), uri("later.vmdk"));
    note.write(steps);
    std::string const main = uri("old.vmdk").toString(true).toStdString();
    EXPECT_TRUE(throwsIOError(yx::CIOError::NotAllowed,
                              "The disk is being renamed to '" + path("later.vmdk") +
                                  "'. The same 'kelm rename' goes on with it.",
                              {{"uri", main}}, [&] { deleteRemains("old.vmdk"); }));
    note.remove(steps);
    note.work = kelm::host::DiskNote::Work::Deleting;
    note.files = {{uri("old.vmdk"), yx::CURI()},
                  {uri("old-s00000.vmdk"), yx::CURI()},
                  {uri("old-s00001.vmdk"), yx::CURI()}};
    note.write(steps);
    fs::remove(path("old.vmdk"));
    EXPECT_THAT(deleteRemains("old.vmdk"),
                ElementsAre(uri("old-s00000.vmdk"), uri("old-s00001.vmdk")));
    EXPECT_THAT(names(), ElementsAre());
}

} // namespace
} // namespace disk_remains_test
} // namespace test_support

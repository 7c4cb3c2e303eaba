#include "host/backups/disk_deletion.h"

#include <filesystem>
#include <fstream>

#include <gmock/gmock.h>

#include "host/store/file_names.h"
#include "tests/support/expect_error.h"
#include "tests/support/safe_disks.h"
#include "tests/support/temp_directory.h"
#include "yx/native_file_system.h"

namespace test_support {
namespace disk_deletion_test {
namespace {

namespace fs = std::filesystem;

using kelm::host::DiskDeletion;
using kelm::host::DiskDeletionOptions;
using kelm::host::DurableFiles;
using testing::ElementsAre;

/// Steps of which some are done, and the rest never.
class EndedSteps : public DurableFiles {
public:
    int left = 1 << 30;

    void make(yx::CURI const& file, std::vector<unsigned char> const& bytes,
              yx::CURI const& like) override {
        take();
        DurableFiles::make(file, bytes, like);
    }
    void replace(yx::CURI const& file, std::vector<unsigned char> const& bytes) override {
        take();
        DurableFiles::replace(file, bytes);
    }
    void remove(yx::CURI const& file) override {
        take();
        DurableFiles::remove(file);
    }

private:
    void take() {
        if (left == 0)
            throw yx::CIOError(yx::CIOError::IOFailure, "Ended.", yx::CProps(), nullptr);
        --left;
    }
};

/// "full.vmdk", its children "mon.vmdk" and "days/tue.vmdk", and "wed.vmdk", the child of the
/// latter. All are split.
class DiskDeletionTest : public ::testing::Test {
protected:
    DiskDeletionTest() { makeDisks(); }

    std::string path(std::string const& name) const { return (folder.path() / name).string(); }
    yx::CURI uri(std::string const& name) const { return kelm::host::uriFromArgument(path(name)); }

    void make(std::string const& name, std::string const& parent) {
        NewDisk request;
        request.sizeBytes = kSmallestDiskBytes;
        request.fileSizeLimitBytes = 5 << 20;
        if (!parent.empty())
            request.parent = uri(parent);
        auto const guard = yx::makeObject<FileGuard>(files.get(), false);
        guard->keep();
        SafeDisk::create(guard.get(), uri(name), request);
    }

    void makeDisks() {
        for (fs::directory_entry const& entry : fs::directory_iterator(folder.path()))
            fs::remove_all(entry.path());
        fs::create_directory(path("days"));
        make("full.vmdk", "");
        make("mon.vmdk", "full.vmdk");
        make("days/tue.vmdk", "full.vmdk");
        make("wed.vmdk", "days/tue.vmdk");
    }

    std::vector<yx::CURI> deleteDisk(std::string const& name, bool withChildren = false) {
        DiskDeletionOptions options;
        options.lookIn = {uri("")};
        options.withChildren = withChildren;
        return DiskDeletion(files.get(), steps, uri(name), options).run();
    }

    std::vector<std::string> names() const {
        std::vector<std::string> found;
        for (fs::directory_entry const& entry : fs::recursive_directory_iterator(folder.path())) {
            if (entry.is_regular_file())
                found.push_back(fs::relative(entry.path(), folder.path()).string());
        }
        std::sort(found.begin(), found.end());
        return found;
    }

    /// Every disk that has its main file can be opened, with its parents.
    void expectDisksAreWhole() {
        for (char const* const name : {"full.vmdk", "mon.vmdk", "days/tue.vmdk", "wed.vmdk"}) {
            if (!fs::exists(path(name)))
                continue;
            SafeDisk disk(files.get(), uri(name), kReadOnly, "");
            for (int grain : {0, 100})
                EXPECT_TRUE(readGrain(disk, grain) == zeros(kGrainBytes)) << name;
        }
    }

    TempDirectory folder;
    yx::P<yx::CNativeFileSystem> files = yx::makeObject<yx::CNativeFileSystem>();
    EndedSteps steps;
};

TEST_F(DiskDeletionTest, TakesAllFilesOfADisk) {
    EXPECT_THAT(deleteDisk("mon.vmdk"),
                ElementsAre(uri("mon.vmdk"), uri("mon-s00000.vmdk"), uri("mon-s00001.vmdk")));
    EXPECT_THAT(names(),
                ElementsAre("days/tue-s00000.vmdk", "days/tue-s00001.vmdk", "days/tue.vmdk",
                            "full-s00000.vmdk", "full-s00001.vmdk", "full.vmdk", "wed-s00000.vmdk",
                            "wed-s00001.vmdk", "wed.vmdk"));
    expectDisksAreWhole();
}

TEST_F(DiskDeletionTest, LeavesADiskWithChildren) {
    std::vector<std::string> const before = names();
    try {
        deleteDisk("full.vmdk");
        ADD_FAILURE() << "it was deleted";
    } catch (kelm::host::DiskHasChildrenError const& error) {
        EXPECT_EQ("The disk has children that need it.", error.getMessage());
        EXPECT_EQ((Props{{"uri", uri("full.vmdk").toString(true).toStdString()},
                         {"children", "2"},
                         {"child", uri("days/tue.vmdk").toString(true).toStdString()}}),
                  propsOf(error));
    }
    EXPECT_EQ(before, names());
}

TEST_F(DiskDeletionTest, TakesChildrenBeforeTheirParents) {
    std::vector<yx::CURI> const gone = deleteDisk("full.vmdk", true);
    EXPECT_EQ(12U, gone.size());
    EXPECT_EQ(uri("wed.vmdk"), gone.front());
    EXPECT_THAT(names(), ElementsAre());
}

TEST_F(DiskDeletionTest, CanBeKilledAtEveryStepAndGoesOn) {
    deleteDisk("full.vmdk", true);
    int const count = (1 << 30) - steps.left;
    EXPECT_GE(count, 14);
    for (int left = 0; left < count; ++left) {
        SCOPED_TRACE(left);
        makeDisks();
        steps.left = left;
        EXPECT_THROW(deleteDisk("full.vmdk", true), yx::CIOError);
        expectDisksAreWhole();
        if (!fs::exists(path("wed.vmdk"))) {
            EXPECT_EQ("The disk is being deleted. 'kelm delete' goes on with it.",
                      kelm::host::DiskNote::describe(files.get(), uri("full.vmdk")));
        }
        // Killed once more.
        steps.left = 3;
        try {
            deleteDisk("full.vmdk", true);
        } catch (yx::CIOError const&) {
            expectDisksAreWhole();
        }
        steps.left = 1 << 30;
        if (!names().empty()) {
            deleteDisk("full.vmdk", true);
        }
        EXPECT_THAT(names(), ElementsAre());
    }
}

TEST_F(DiskDeletionTest, GoesOnWithoutFilesThatAreOfANewDisk) {
    steps.left = 3;
    EXPECT_THROW(deleteDisk("full.vmdk", true), yx::CIOError);
    ASSERT_FALSE(fs::exists(path("wed.vmdk")));
    fs::remove(path("wed-s00000.vmdk"));
    fs::remove(path("wed-s00001.vmdk"));
    make("wed.vmdk", "");
    steps.left = 1 << 30;
    deleteDisk("full.vmdk", true);
    EXPECT_THAT(names(), ElementsAre("wed-s00000.vmdk", "wed-s00001.vmdk", "wed.vmdk"));
    expectDisksAreWhole();
}

TEST_F(DiskDeletionTest, RefusesADiskInUse) {
    std::vector<std::string> const before = names();
    for (char const* const name : {"full.vmdk", "wed.vmdk"}) {
        SafeDisk const user(files.get(), uri(name), kReadOnly, "");
        EXPECT_THROW(deleteDisk("full.vmdk", true), yx::CLockFileError);
    }
    EXPECT_EQ(before, names());
}

TEST_F(DiskDeletionTest, LeavesFilesAloneThatAreNoneOfADisk) {
    std::ofstream(path("letter")) << "a letter to somebody";
    std::ofstream(path("bad.vmdk"))
        << "# Disk DescriptorFile\nCID=1\ncreateType=\"twoGbMaxExtentSparse\"\n"
           "RW 128 SPARSE \"letter\"\n";
    std::vector<std::string> const before = names();
    EXPECT_TRUE(throwsIOError(
        yx::CIOError::NotAllowed, "The disk names a file that is no extent of a disk.",
        {{"uri", uri("letter").toString(true).toStdString()}}, [&] { deleteDisk("bad.vmdk"); }));
    EXPECT_TRUE(throwsIOError(yx::CIOError::CorruptData, "The file is no disk.",
                              {{"uri", uri("letter").toString(true).toStdString()}},
                              [&] { deleteDisk("letter"); }));
    EXPECT_TRUE(throwsIOError(yx::CIOError::NotFound, "The disk does not exist.",
                              {{"uri", uri("none.vmdk").toString(true).toStdString()}},
                              [&] { deleteDisk("none.vmdk"); }));
    EXPECT_EQ(before, names());
}

TEST_F(DiskDeletionTest, RefusesFilesThatAnotherDiskHasToo) {
    fs::copy_file(path("mon.vmdk"), path("copy.vmdk"));
    std::vector<std::string> const before = names();
    EXPECT_TRUE(throwsIOError(yx::CIOError::NotAllowed, "The file belongs to another disk too.",
                              {{"uri", uri("mon-s00000.vmdk").toString(true).toStdString()},
                               {"disk", uri("copy.vmdk").toString(true).toStdString()}},
                              [&] { deleteDisk("mon.vmdk"); }));
    EXPECT_EQ(before, names());
}

} // namespace
} // namespace disk_deletion_test
} // namespace test_support

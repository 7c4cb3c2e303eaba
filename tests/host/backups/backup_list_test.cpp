#include "host/backups/backup_list.h"

#include <fstream>

#include <gmock/gmock.h>

#include "host/disk/disk_record.h"
#include "host/store/file_names.h"
#include "tests/support/expect_error.h"
#include "tests/support/safe_disks.h"
#include "tests/support/temp_directory.h"
#include "yx/native_file_system.h"

namespace test_support {
namespace {

using kelm::host::BackupDisk;
using kelm::host::BackupState;
using testing::ElementsAre;

/// Disks in a folder of the system.
class BackupListTest : public ::testing::Test {
protected:
    std::string path(std::string const& name) const { return (folder.path() / name).string(); }
    yx::CURI uri(std::string const& name) const { return kelm::host::uriFromArgument(path(name)); }

    void make(std::string const& name, std::string const& parent = "", std::string time = "",
              std::function<void(NewDisk&)> const& change = {}) {
        NewDisk request;
        request.sizeBytes = kSmallestDiskBytes;
        request.time = std::move(time);
        if (!parent.empty())
            request.parent = uri(parent);
        if (change)
            change(request);
        auto const guard = yx::makeObject<FileGuard>(files.get(), false);
        guard->keep();
        SafeDisk::create(guard.get(), uri(name), request);
    }

    void writeTo(std::string const& name) {
        SafeDisk disk(files.get(), uri(name), yx::IIOStream::ReadWrite, "");
        disk.write(0, "changed", 7);
        disk.flush();
    }

    void putFile(std::string const& name, std::string const& text) {
        std::ofstream(path(name), std::ios::binary) << text;
    }

    std::vector<BackupDisk> list(std::string const& below = "") {
        return kelm::host::listBackups(files.get(), {uri(below)});
    }

    /// One line a disk: name, state, how many parents and how many dependents it has.
    std::vector<std::string> lines(std::string const& below = "") {
        std::vector<std::string> texts;
        for (BackupDisk const& disk : list(below)) {
            texts.push_back(disk.mainFile.getName().toStdString() + " " + nameOf(disk.state) + " " +
                            std::to_string(disk.parentCount) + " " +
                            std::to_string(disk.dependentCount));
        }
        return texts;
    }

    /// Its problem, with the folder left out.
    std::string problemOf(std::string const& name) {
        for (BackupDisk const& disk : list()) {
            if (disk.mainFile != uri(name))
                continue;
            std::string text = disk.problem;
            for (std::size_t at = 0; (at = text.find(path(""))) != std::string::npos;)
                text.erase(at, path("").size());
            return text;
        }
        return "not listed";
    }

    TempDirectory folder;
    yx::P<yx::CNativeFileSystem> files = yx::makeObject<yx::CNativeFileSystem>();
};

TEST_F(BackupListTest, OfAFolderWithoutDisksIsEmpty) {
    putFile("notes.txt", "nothing");
    EXPECT_TRUE(list().empty());
}

TEST_F(BackupListTest, OfNoFolderIsAnError) {
    EXPECT_TRUE(throwsIOError(
        yx::CIOError::NotFound, "Cannot list the folder: No such file or directory",
        {{"path", path("none")}}, [&] { kelm::host::listBackups(files.get(), {uri("none")}); }));
}

TEST_F(BackupListTest, OrdersChainsByTimeAndChildrenBehindTheirParents) {
    make("b.vmdk", "", "2031-05-02T02:00:00Z");
    make("a.vmdk", "", "2031-05-03T02:00:00Z");
    std::filesystem::create_directory(path("days"));
    make("days/late.vmdk", "b.vmdk", "2031-05-05T02:00:00Z");
    make("early.vmdk", "b.vmdk", "2031-05-04T02:00:00Z");
    make("last.vmdk", "early.vmdk", "2031-05-06T02:00:00Z");
    EXPECT_THAT(lines(), ElementsAre("b.vmdk complete 0 3", "early.vmdk complete 1 1",
                                     "last.vmdk complete 2 0", "late.vmdk complete 1 0",
                                     "a.vmdk complete 0 0"));
    std::vector<BackupDisk> const disks = list();
    EXPECT_EQ(std::nullopt, disks[0].parent);
    EXPECT_EQ(std::optional<std::size_t>(0), disks[1].parent);
    EXPECT_EQ(std::optional<std::size_t>(1), disks[2].parent);
    EXPECT_EQ(uri("early.vmdk"), disks[2].parentFile);
}

/// A list in another order would have the oldest of them kept as the last one.
TEST_F(BackupListTest, OfOneSecondIsInTheOrderOfTheNumbersInNames) {
    std::string const time = "2031-05-02T02:00:00Z";
    for (char const* name : {"web-9Z-10.vmdk", "web-9Z.vmdk", "web-10Z.vmdk", "web-9Z-2.vmdk"})
        make(name, "", time);
    EXPECT_THAT(lines(), ElementsAre("web-9Z.vmdk complete 0 0", "web-9Z-2.vmdk complete 0 0",
                                     "web-9Z-10.vmdk complete 0 0", "web-10Z.vmdk complete 0 0"));
}

TEST_F(BackupListTest, HasParentsThatLieElsewhere) {
    std::filesystem::create_directory(path("days"));
    make("full.vmdk");
    make("days/mon.vmdk", "full.vmdk");
    EXPECT_THAT(lines("days"), ElementsAre("full.vmdk complete 0 1", "mon.vmdk complete 1 0"));
}

TEST_F(BackupListTest, HasTheFactsOfEachDisk) {
    make("disk.vmdk", "", "2031-05-04T02:00:00Z", [](NewDisk& request) {
        request.imageBytes = kSmallestDiskBytes - 512;
        request.source = "/dev/sdb";
        request.host = "server7";
        request.label = "before the upgrade";
        request.compressed = true;
        request.password = "secret";
        request.fileSizeLimitBytes = 4 << 20;
        request.createExtentFilesOnDemand = true;
    });
    std::vector<BackupDisk> const disks = list();
    ASSERT_EQ(1U, disks.size());
    BackupDisk const& disk = disks.front();
    EXPECT_EQ("2031-05-04T02:00:00Z", disk.time);
    EXPECT_EQ("/dev/sdb", disk.source);
    EXPECT_EQ("server7", disk.host);
    EXPECT_EQ("before the upgrade", disk.label);
    EXPECT_EQ(kSmallestDiskBytes, disk.sizeBytes);
    EXPECT_EQ(std::optional<__int64>(kSmallestDiskBytes - 512), disk.imageBytes);
    EXPECT_TRUE(disk.isCompressed);
    EXPECT_TRUE(disk.isEncrypted);
    EXPECT_TRUE(disk.isOnDemand);
    EXPECT_EQ(1, disk.fileCount) << "the other one is made at the first write";
    EXPECT_GT(disk.ownBytes, 0);
    EXPECT_LT(disk.ownBytes, 1 << 20);
}

TEST_F(BackupListTest, OfADiskWithoutFactsHasEmptyOnes) {
    make("disk.vmdk");
    BackupDisk const disk = list().front();
    EXPECT_EQ("", disk.time + disk.source + disk.host + disk.label + disk.problem);
    EXPECT_EQ(std::nullopt, disk.imageBytes);
    EXPECT_FALSE(disk.isCompressed || disk.isEncrypted || disk.isOnDemand);
    EXPECT_TRUE(disk.parentFile.isEmpty());
}

TEST_F(BackupListTest, DoesNotListTheFilesOfADiskForThemselves) {
    make("disk.vmdk", "", "", [](NewDisk& request) { request.fileSizeLimitBytes = 4 << 20; });
    EXPECT_THAT(lines(), ElementsAre("disk.vmdk complete 0 0"));
}

TEST_F(BackupListTest, ListsADiskOfSeveralNamesOnce) {
    make("disk.vmdk");
    std::filesystem::create_symlink("disk.vmdk", path("also.vmdk"));
    EXPECT_THAT(lines(), ElementsAre("disk.vmdk complete 0 0"));
    EXPECT_EQ(1U, kelm::host::listBackups(files.get(), {uri(""), uri("")}).size());
}

TEST_F(BackupListTest, KnowsARenamedDiskAsItself) {
    make("old.vmdk");
    std::filesystem::rename(path("old.vmdk"), path("new.vmdk"));
    EXPECT_THAT(lines(), ElementsAre("new.vmdk complete 0 0"));
}

TEST_F(BackupListTest, TellsAnUnfinishedDiskAndWhatHangsOnIt) {
    make("full.vmdk");
    make("mon.vmdk", "full.vmdk");
    make("tue.vmdk", "mon.vmdk");
    {
        SafeDisk disk(files.get(), uri("mon.vmdk"), yx::IIOStream::ReadWrite, "");
        kelm::host::DiskRecord(*disk.getDisk().getDescriptor())
            .setState(kelm::host::DiskState::Unfinished);
        disk.storeDescriptor();
    }
    EXPECT_THAT(lines(), ElementsAre("full.vmdk complete 0 2", "mon.vmdk unfinished 1 1",
                                     "tue.vmdk parent failing 2 0"));
    EXPECT_EQ("it was not filled to its end", problemOf("mon.vmdk"));
    EXPECT_EQ("a parent fails: mon.vmdk", problemOf("tue.vmdk"));
}

TEST_F(BackupListTest, TellsAMissingAndAChangedParent) {
    make("full.vmdk");
    make("mon.vmdk", "full.vmdk");
    make("other.vmdk");
    make("tue.vmdk", "other.vmdk");
    make("wed.vmdk", "tue.vmdk");
    writeTo("full.vmdk");
    std::filesystem::remove(path("other.vmdk"));
    EXPECT_THAT(lines(), ElementsAre("full.vmdk complete 0 1", "mon.vmdk parent changed 1 0",
                                     "tue.vmdk parent missing 0 1", "wed.vmdk parent failing 1 0"));
    EXPECT_EQ("its parent has changed: full.vmdk", problemOf("mon.vmdk"));
    EXPECT_EQ("its parent is missing: other.vmdk", problemOf("tue.vmdk"));
    EXPECT_EQ("a parent fails: tue.vmdk", problemOf("wed.vmdk"));
}

TEST_F(BackupListTest, TellsDamagedFiles) {
    make("header.vmdk");
    make("split.vmdk", "", "", [](NewDisk& request) { request.fileSizeLimitBytes = 4 << 20; });
    {
        std::fstream file(path("header.vmdk"), std::ios::binary | std::ios::in | std::ios::out);
        file.seekp(4);
        file << '\x09';
    }
    std::filesystem::remove(path("split-s00001.vmdk"));
    putFile("empty.vmdk", "");
    EXPECT_THAT(lines(), ElementsAre("empty.vmdk damaged 0 0", "header.vmdk damaged 0 0",
                                     "split.vmdk damaged 0 0"));
    EXPECT_EQ("it begins as no disk does", problemOf("empty.vmdk"));
    EXPECT_EQ("a file of it is missing: split-s00001.vmdk", problemOf("split.vmdk"));
    EXPECT_THAT(problemOf("header.vmdk"), testing::HasSubstr("version"));
}

TEST_F(BackupListTest, EndsWhereDisksAreTheirOwnParents) {
    putFile("a.vmdk", "# Disk DescriptorFile\nCID=1\nparentCID=1\nparentFileNameHint=\"b.vmdk\"\n");
    putFile("b.vmdk", "# Disk DescriptorFile\nCID=1\nparentCID=1\nparentFileNameHint=\"a.vmdk\"\n");
    EXPECT_THAT(lines(), ElementsAre("a.vmdk parent failing 0 0", "b.vmdk parent failing 0 0"));
    EXPECT_EQ("its parents form a circle", problemOf("a.vmdk"));
}

TEST_F(BackupListTest, TakesNoLocksAndListsADiskThatIsBeingWritten) {
    make("disk.vmdk");
    SafeDisk const disk(files.get(), uri("disk.vmdk"), yx::IIOStream::ReadWrite, "");
    EXPECT_THAT(lines(), ElementsAre("disk.vmdk complete 0 0"));
}

} // namespace
} // namespace test_support

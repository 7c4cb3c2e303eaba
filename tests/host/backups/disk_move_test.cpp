#include "host/backups/disk_move.h"

#include <filesystem>
#include <fstream>

#include <gmock/gmock.h>

#include "host/backups/backup_list.h"
#include "host/disk/descriptor_checksum.h"
#include "host/store/file_names.h"
#include "tests/support/ending_steps.h"
#include "tests/support/expect_error.h"
#include "tests/support/safe_disks.h"
#include "tests/support/small_device.h"
#include "tests/support/temp_directory.h"
#include "yx/native_file_system.h"

namespace test_support {
namespace disk_move_test {
namespace {

namespace fs = std::filesystem;

using kelm::host::DiskMove;
using kelm::host::DiskMoveOptions;
using kelm::host::DiskMoveResult;
using kelm::host::DurableFiles;
using testing::ElementsAre;

constexpr __int64 kFileSizeLimitBytes = 5 << 20;

struct MovedKind {
    char const* name;
    void (*change)(NewDisk&);
    bool hasLinks = true;
};

MovedKind const kMovedKinds[] = {
    {"oneFile", [](NewDisk&) {}},
    {"encrypted",
     [](NewDisk& request) {
         request.password = "secret";
         request.compressed = true;
     }},
    {"split", [](NewDisk& request) { request.fileSizeLimitBytes = kFileSizeLimitBytes; }},
    {"onDemand",
     [](NewDisk& request) {
         request.fileSizeLimitBytes = kFileSizeLimitBytes;
         request.createExtentFilesOnDemand = true;
     }},
    {"oneFileElsewhere", [](NewDisk&) {}, false},
    {"splitElsewhere", [](NewDisk& request) { request.fileSizeLimitBytes = kFileSizeLimitBytes; },
     false},
};

/// A chain of three disks in a folder: "full.vmdk", its child "disk.vmdk", and the child of that,
/// "days/leaf.vmdk". Each has a grain of its own.
class DiskMoveTest : public ::testing::Test {
protected:
    DiskMoveTest() { files = yx::makeObject<yx::CNativeFileSystem>(); }

    std::string path(std::string const& name) const { return (folder.path() / name).string(); }
    yx::CURI uri(std::string const& name) const { return kelm::host::uriFromArgument(path(name)); }

    void make(std::string const& name, std::string const& parent, int grain,
              void (*change)(NewDisk&)) {
        NewDisk request;
        request.sizeBytes = kSmallestDiskBytes;
        change(request);
        m_password = request.password;
        if (!parent.empty())
            request.parent = uri(parent);
        auto const guard = yx::makeObject<FileGuard>(files.get(), false);
        guard->keep();
        auto const disk = SafeDisk::create(guard.get(), uri(name), request);
        writeGrain(*disk, grain, contentOf(grain));
        disk->flush();
    }

    void makeChain(void (*change)(NewDisk&)) {
        for (fs::directory_entry const& entry : fs::directory_iterator(folder.path()))
            fs::remove_all(entry.path());
        fs::create_directory(path("days"));
        fs::create_directory(path("other"));
        make("full.vmdk", "", 0, change);
        make("disk.vmdk", "full.vmdk", 1, change);
        make("days/leaf.vmdk", "disk.vmdk", 2, change);
    }

    static Bytes contentOf(int grain) {
        return pattern(kGrainBytes, static_cast<unsigned int>(grain) + 1);
    }

    /// Reads the chain through its last disk, which is all of it.
    void expectIsReadable(std::string const& leaf = "days/leaf.vmdk", int grains = 3) {
        SafeDisk disk(files.get(), uri(leaf), kReadOnly, m_password);
        for (int grain = 0; grain < grains; ++grain)
            EXPECT_TRUE(readGrain(disk, grain) == contentOf(grain)) << leaf << " " << grain;
    }

    void expectHasChecksum(std::string const& name) {
        SafeDisk disk(files.get(), uri(name), kReadOnly, m_password);
        EXPECT_EQ(kelm::host::ChecksumState::Valid,
                  kelm::host::getChecksumState(*disk.getDisk().getDescriptor(), uri(name)))
            << name;
    }

    DiskMoveResult move(std::string const& from, std::string const& to) {
        DiskMoveOptions options;
        options.lookIn = {uri("")};
        return DiskMove(files.get(), steps, uri(from), uri(to), options).run();
    }

    /// All names below the folder, in their order.
    std::vector<std::string> names() const {
        std::vector<std::string> found;
        for (fs::directory_entry const& entry : fs::recursive_directory_iterator(folder.path())) {
            if (entry.is_regular_file())
                found.push_back(fs::relative(entry.path(), folder.path()).string());
        }
        std::sort(found.begin(), found.end());
        return found;
    }

    std::string contentOfFile(std::string const& name) const {
        std::ifstream stream(path(name), std::ios::binary);
        return {std::istreambuf_iterator<char>(stream), {}};
    }

    TempDirectory folder;
    yx::P<yx::CNativeFileSystem> files;
    EndingSteps steps;
    yx::String m_password;
};

TEST_F(DiskMoveTest, GivesEveryFileOfADiskItsNewName) {
    makeChain([](NewDisk& request) { request.fileSizeLimitBytes = kFileSizeLimitBytes; });
    DiskMoveResult const result = move("disk.vmdk", "other/new.disk");
    EXPECT_THAT(result.files, ElementsAre(uri("other/new.disk"), uri("other/new-s00000.disk"),
                                          uri("other/new-s00001.disk")));
    EXPECT_THAT(result.children, ElementsAre(uri("days/leaf.vmdk")));
    EXPECT_THAT(names(),
                ElementsAre("days/leaf-s00000.vmdk", "days/leaf-s00001.vmdk", "days/leaf.vmdk",
                            "full-s00000.vmdk", "full-s00001.vmdk", "full.vmdk",
                            "other/new-s00000.disk", "other/new-s00001.disk", "other/new.disk"));
    expectIsReadable();
}

TEST_F(DiskMoveTest, KeepsEveryKindReadableAndItsChecksums) {
    for (MovedKind const& kind : kMovedKinds) {
        for (char const* const to :
             {"new.vmdk", "other/a name that is far longer than it was.vmdk"}) {
            SCOPED_TRACE(std::string(kind.name) + " " + to);
            makeChain(kind.change);
            steps.hasLinks = kind.hasLinks;
            move("disk.vmdk", to);
            EXPECT_FALSE(fs::exists(path("disk.vmdk")));
            expectIsReadable();
            expectIsReadable(to, 2);
            expectHasChecksum(to);
            expectHasChecksum("days/leaf.vmdk");
            for (kelm::host::BackupDisk const& disk :
                 kelm::host::listBackups(files.get(), {uri("")}))
                EXPECT_EQ("", disk.problem);
        }
    }
}

TEST_F(DiskMoveTest, TellsTheChildrenOfAFullDisk) {
    makeChain([](NewDisk&) {});
    move("full.vmdk", "other/full.vmdk");
    expectIsReadable();
    // Folders that move together keep together.
    std::string const text = contentOfFile("disk.vmdk");
    EXPECT_NE(std::string::npos, text.find("parentFileNameHint=\"other/full.vmdk\"\n"));
}

TEST_F(DiskMoveTest, NamesTheParentByTheShortestWayInTheEnd) {
    makeChain([](NewDisk&) {});
    move("days/leaf.vmdk", "leaf.vmdk");
    expectIsReadable("leaf.vmdk");
    EXPECT_NE(std::string::npos,
              contentOfFile("leaf.vmdk").find("parentFileNameHint=\"disk.vmdk\"\n"));
    EXPECT_NE(std::string::npos, contentOfFile("leaf.vmdk").find("SPARSE \"leaf.vmdk\""));
}

TEST_F(DiskMoveTest, CanBeKilledAtEveryStepAndGoesOn) {
    for (MovedKind const& kind : kMovedKinds) {
        SCOPED_TRACE(kind.name);
        makeChain(kind.change);
        // Deriving its key takes long, and its files are those of any other.
        if (!m_password.isEmpty())
            continue;
        steps.left = 1 << 30;
        steps.hasLinks = kind.hasLinks;
        move("disk.vmdk", "other/new.vmdk");
        std::vector<std::string> const namesInTheEnd = names();
        int const count = (1 << 30) - steps.left;
        EXPECT_GE(count, 5);
        for (int left = 0; left < count; ++left) {
            SCOPED_TRACE(left);
            makeChain(kind.change);
            steps.left = left;
            EXPECT_THROW(move("disk.vmdk", "other/new.vmdk"), yx::CIOError);
            expectIsReadable();
            steps.left = 1 << 30;
            move("disk.vmdk", "other/new.vmdk");
            expectIsReadable();
            expectIsReadable("other/new.vmdk", 2);
            expectHasChecksum("other/new.vmdk");
            expectHasChecksum("days/leaf.vmdk");
            EXPECT_EQ(namesInTheEnd, names());
        }
    }
}

TEST_F(DiskMoveTest, ThatFailsBeforeItsChildrenKnowLeavesNothing) {
    for (MovedKind const& kind : kMovedKinds) {
        makeChain(kind.change);
        std::vector<std::string> const before = names();
        steps.hasLinks = kind.hasLinks;
        steps.isKill = false;
        int failures = 0;
        for (int left = 0; fs::exists(path("disk.vmdk")); ++left) {
            SCOPED_TRACE(std::string(kind.name) + " " + std::to_string(left));
            steps.left = left;
            try {
                move("disk.vmdk", "other/new.vmdk");
            } catch (yx::CIOError const&) {
                ++failures;
            }
            expectIsReadable();
            if (fs::exists(path("disk.vmdk.moving"))) {
                EXPECT_TRUE(fs::exists(path("other/new.vmdk")));
            } else if (fs::exists(path("disk.vmdk"))) {
                EXPECT_EQ(before, names());
            }
        }
        EXPECT_GE(failures, 3);
    }
}

TEST_F(DiskMoveTest, NeverReplacesAFile) {
    makeChain([](NewDisk& request) { request.fileSizeLimitBytes = kFileSizeLimitBytes; });
    for (char const* const taken : {"other/new.vmdk", "other/new-s00001.vmdk"}) {
        std::ofstream(path(taken)) << "precious";
        std::vector<std::string> const before = names();
        EXPECT_TRUE(throwsIOError(yx::CIOError::AlreadyExists, "The file exists already.",
                                  {{"uri", uri(taken).toString(true).toStdString()}},
                                  [&] { move("disk.vmdk", "other/new.vmdk"); }));
        EXPECT_EQ(before, names());
        EXPECT_EQ("precious", contentOfFile(taken));
        fs::remove(path(taken));
    }
    expectIsReadable();
}

TEST_F(DiskMoveTest, DoesNotTakeAFileThatCameMeanwhileForItsOwn) {
    makeChain([](NewDisk&) {});
    // The note, and the name of the parent.
    steps.left = 2;
    EXPECT_THROW(move("disk.vmdk", "other/new.vmdk"), yx::CIOError);
    ASSERT_FALSE(fs::exists(path("other/new.vmdk")));
    make("other/new.vmdk", "", 5, [](NewDisk&) {});
    steps.left = 1 << 30;
    EXPECT_TRUE(throwsIOError(yx::CIOError::AlreadyExists, "The file exists already.",
                              {{"uri", uri("other/new.vmdk").toString(true).toStdString()}},
                              [&] { move("disk.vmdk", "other/new.vmdk"); }));
    expectIsReadable();
    fs::remove(path("other/new.vmdk"));
    move("disk.vmdk", "other/new.vmdk");
    expectIsReadable();
}

TEST_F(DiskMoveTest, RefusesADiskOrChildInUse) {
    makeChain([](NewDisk& request) { request.fileSizeLimitBytes = kFileSizeLimitBytes; });
    std::vector<std::string> const before = names();
    for (char const* const name : {"disk.vmdk", "days/leaf.vmdk"}) {
        for (auto const access : {kReadOnly, kReadWrite}) {
            SafeDisk const user(files.get(), uri(name), access, "");
            EXPECT_THROW(move("disk.vmdk", "new.vmdk"), yx::CLockFileError);
        }
    }
    EXPECT_EQ(before, names());
    expectIsReadable();
}

TEST_F(DiskMoveTest, OfNoDiskIsNotFound) {
    EXPECT_TRUE(throwsIOError(yx::CIOError::NotFound, "The disk does not exist.",
                              {{"uri", uri("none.vmdk").toString(true).toStdString()}},
                              [&] { move("none.vmdk", "new.vmdk"); }));
}

TEST_F(DiskMoveTest, RefusesTextThatIsNoDisk) {
    std::ofstream(path("notes.txt")) << "a letter to somebody";
    EXPECT_TRUE(throwsIOError(yx::CIOError::CorruptData, "The file is no disk.",
                              {{"uri", uri("notes.txt").toString(true).toStdString()}},
                              [&] { move("notes.txt", "new.vmdk"); }));
    EXPECT_THAT(names(), ElementsAre("notes.txt"));
}

TEST_F(DiskMoveTest, LeavesFilesAloneThatAreNoExtents) {
    std::ofstream(path("letter")) << "a letter to somebody";
    std::ofstream(path("disk.vmdk"))
        << "# Disk DescriptorFile\nCID=1\ncreateType=\"twoGbMaxExtentSparse\"\n"
           "RW 128 SPARSE \"letter\"\n";
    EXPECT_TRUE(throwsIOError(yx::CIOError::NotAllowed,
                              "The disk names a file that is no extent of a disk.",
                              {{"uri", uri("letter").toString(true).toStdString()}},
                              [&] { move("disk.vmdk", "new.vmdk"); }));
    EXPECT_THAT(names(), ElementsAre("disk.vmdk", "letter"));
}

TEST_F(DiskMoveTest, RefusesFilesThatAnotherDiskHasToo) {
    makeChain([](NewDisk& request) { request.fileSizeLimitBytes = kFileSizeLimitBytes; });
    fs::copy_file(path("disk.vmdk"), path("copy.vmdk"));
    std::vector<std::string> const before = names();
    EXPECT_TRUE(throwsIOError(yx::CIOError::NotAllowed, "The file belongs to another disk too.",
                              {{"uri", uri("disk-s00000.vmdk").toString(true).toStdString()},
                               {"disk", uri("copy.vmdk").toString(true).toStdString()}},
                              [&] { move("disk.vmdk", "new.vmdk"); }));
    EXPECT_EQ(before, names());
}

TEST_F(DiskMoveTest, GoesOnToNoOtherName) {
    makeChain([](NewDisk&) {});
    steps.left = 3;
    EXPECT_THROW(move("disk.vmdk", "other/new.vmdk"), yx::CIOError);
    EXPECT_EQ("The disk is being renamed to '" + path("other/new.vmdk") +
                  "'. The same 'kelm rename' goes on with it.",
              kelm::host::DiskNote::describe(files.get(), uri("disk.vmdk")).toStdString());
    steps.left = 1 << 30;
    EXPECT_TRUE(throwsIOError(yx::CIOError::NotAllowed,
                              "The disk is being renamed to another name.",
                              {{"uri", uri("disk.vmdk").toString(true).toStdString()},
                               {"target", uri("other/new.vmdk").toString(true).toStdString()}},
                              [&] { move("disk.vmdk", "another.vmdk"); }));
    move("disk.vmdk", "other/new.vmdk");
    EXPECT_EQ("", kelm::host::DiskNote::describe(files.get(), uri("disk.vmdk")));
    expectIsReadable();
}

TEST_F(DiskMoveTest, WorksOnADescriptorOfOtherSoftwareWithoutRoom) {
    makeChain([](NewDisk& request) { request.fileSizeLimitBytes = kFileSizeLimitBytes; });
    std::string text = contentOfFile("days/leaf.vmdk");
    text.resize(text.find('\0'));
    std::ofstream(path("days/leaf.vmdk"), std::ios::binary | std::ios::trunc) << text;
    move("disk.vmdk", "other/a name that is far longer than it was.vmdk");
    expectIsReadable();
}

TEST_F(DiskMoveTest, AsksForRoomOnAnotherDeviceBeforeAnythingIsMade) {
    makeChain([](NewDisk&) {});
    {
        SafeDisk disk(files.get(), uri("disk.vmdk"), kReadWrite, "");
        for (int grain = 3; grain < 40; ++grain)
            writeGrain(disk, grain, contentOf(grain));
    }
    std::vector<std::string> const before = names();
    SmallDevice const device(path("other"));
    if (!device.isMounted())
        GTEST_SKIP() << "mounting a small file system is not permitted here";
    try {
        move("disk.vmdk", "other/new.vmdk");
        FAIL() << "It was moved.";
    } catch (yx::CIOError const& error) {
        EXPECT_EQ(yx::CIOError::NoSpace, error.getIOCode());
        EXPECT_EQ("There is not enough room for the copy.", error.getMessage().toStdString());
        EXPECT_EQ(3U, propsOf(error).size());
    }
    EXPECT_EQ(before, names());
}

} // namespace
} // namespace disk_move_test
} // namespace test_support

// What real devices and other people do to the files of a disk.

#include <filesystem>
#include <fstream>

#include <sys/stat.h>

#include "tests/crash/crash_history.h"
#include "tests/support/ignored_exception_capture.h"
#include "tests/support/log_capture.h"
#include "tests/support/running_program.h"
#include "tests/support/small_device.h"
#include "tests/support/temp_directory.h"
#include "tests/support/unprivileged_scope.h"
#include "yx/native_file_system.h"

namespace test_support {
namespace {

/// Disks on the files of the operating system.
class Devices : public testing::Test {
protected:
    std::unique_ptr<SafeDisk> create(std::string const& name, bool compressed = false,
                                     std::string const& parent = "") {
        NewDisk request;
        request.sizeBytes = kSmallestDiskBytes;
        request.compressed = compressed;
        if (!parent.empty())
            request.parent = folder.uri(parent);
        yx::P<FileGuard> const guard = yx::makeObject<FileGuard>(files.get(), false);
        std::unique_ptr<SafeDisk> disk = SafeDisk::create(guard.get(), folder.uri(name), request);
        guard->keep();
        return disk;
    }

    std::unique_ptr<SafeDisk> open(std::string const& name, yx::IIOStream::Access access) {
        return std::make_unique<SafeDisk>(files.get(), folder.uri(name), access, "");
    }

    static void writePattern(SafeDisk& disk, int grain, unsigned int seed) {
        writeGrain(disk, grain, pattern(kGrainBytes, seed));
    }

    /// "parent.vmdk" with data in its grains 0 and 1, and "child.vmdk" with its own grain 1.
    void createChild() {
        {
            std::unique_ptr<SafeDisk> const parent = create("parent.vmdk");
            writePattern(*parent, 0, 1);
            writePattern(*parent, 1, 2);
            parent->flush();
        }
        std::unique_ptr<SafeDisk> const child = create("child.vmdk", false, "parent.vmdk");
        writePattern(*child, 1, 3);
        child->flush();
    }

    std::set<std::string> fileNames() const {
        std::set<std::string> names;
        for (auto const& entry : std::filesystem::directory_iterator(folder.path()))
            names.insert(entry.path().filename().string());
        return names;
    }

    TempDirectory folder;
    yx::P<yx::CNativeFileSystem> files = yx::makeObject<yx::CNativeFileSystem>();
};

TEST_F(Devices, FileThatShrinksWhileOpenFailsWhereItIsMissing) {
    for (bool const compressed : {false, true}) {
        std::string const name = compressed ? "compressed.vmdk" : "plain.vmdk";
        {
            std::unique_ptr<SafeDisk> const disk = create(name, compressed);
            for (int grain = 0; grain < 8; ++grain)
                writePattern(*disk, grain, static_cast<unsigned int>(grain));
            disk->flush();
        }
        std::unique_ptr<SafeDisk> const disk = open(name, kReadOnly);
        EXPECT_TRUE(sameBytes(pattern(kGrainBytes, 0), readGrain(*disk, 0)));
        std::filesystem::path const path = folder.path() / name;
        auto const length = std::filesystem::file_size(path);
        std::filesystem::resize_file(path, length - 3 * kGrainBytes);
        try {
            readGrain(*disk, 7);
            ADD_FAILURE() << "a grain was read that is not there";
        } catch (yx::CIOError const& error) {
            EXPECT_EQ(yx::CIOError::UnexpectedEnd, error.getIOCode()) << error.what();
            EXPECT_EQ(folder.uri(name).toString(true), *error.getParams().find("uri"));
        }
        EXPECT_TRUE(sameBytes(pattern(kGrainBytes, 1), readGrain(*disk, 1)));
    }
}

TEST_F(Devices, FileThatShrinksWhileItIsWrittenKeepsItsOtherGrains) {
    for (bool const compressed : {false, true}) {
        std::string const name = compressed ? "compressed.vmdk" : "plain.vmdk";
        LogCapture const log;
        IgnoredExceptionCapture const ignored;
        std::unique_ptr<SafeDisk> disk = create(name, compressed);
        for (int grain = 0; grain < 8; ++grain)
            writePattern(*disk, grain, static_cast<unsigned int>(grain));
        disk->flush();
        std::filesystem::path const path = folder.path() / name;
        std::filesystem::resize_file(path, std::filesystem::file_size(path) - 2 * kGrainBytes);
        writePattern(*disk, 9, 9);
        disk->flush();
        disk.reset();
        disk = open(name, kReadOnly);
        for (int const grain : {0, 1, 2, 3, 4, 9})
            EXPECT_TRUE(sameBytes(pattern(kGrainBytes, static_cast<unsigned int>(grain)),
                                  readGrain(*disk, grain)))
                << "grain " << grain;
    }
}

TEST_F(Devices, ParentThatIsGoneFailsOnlyWhatItHeld) {
    createChild();
    LogCapture const log;
    std::filesystem::path const path = folder.path() / "parent.vmdk";
    std::filesystem::rename(path, folder.path() / "away");
    std::unique_ptr<SafeDisk> const child = open("child.vmdk", kReadWrite);
    EXPECT_TRUE(sameBytes(pattern(kGrainBytes, 3), readGrain(*child, 1)));
    try {
        readGrain(*child, 0);
        ADD_FAILURE() << "a grain of a missing parent was read";
    } catch (yx::CIOError const& error) {
        EXPECT_EQ(yx::CIOError::NotFound, error.getIOCode()) << error.what();
        EXPECT_EQ(folder.uri("parent.vmdk").toString(true), *error.getParams().find("uri"));
    }
    EXPECT_EQ((std::set<std::string>{"away", "child.vmdk", "child.vmdk.lock"}), fileNames());
    writePattern(*child, 2, 4);
    child->flush();
    std::filesystem::rename(folder.path() / "away", path);
    EXPECT_TRUE(sameBytes(pattern(kGrainBytes, 1), readGrain(*child, 0)));
    EXPECT_TRUE(sameBytes(pattern(kGrainBytes, 4), readGrain(*child, 2)));
}

TEST_F(Devices, ParentThatIsDeletedAfterItWasReachedIsStillRead) {
    createChild();
    std::unique_ptr<SafeDisk> const child = open("child.vmdk", kReadOnly);
    EXPECT_TRUE(sameBytes(pattern(kGrainBytes, 1), readGrain(*child, 0)));
    std::filesystem::remove(folder.path() / "parent.vmdk");
    EXPECT_TRUE(sameBytes(pattern(kGrainBytes, 3), readGrain(*child, 1)));
    EXPECT_TRUE(sameBytes(pattern(kGrainBytes, 1), readGrain(*child, 0)));
}

TEST_F(Devices, ParentThatIsReplacedOrChangedIsRefused) {
    for (bool const isReplaced : {true, false}) {
        createChild();
        LogCapture const log;
        std::string const expected =
            yx::toHexString(
                open("parent.vmdk", kReadOnly)->getDisk().getDescriptor()->getContentID())
                .toStdString();
        if (isReplaced) {
            std::filesystem::remove(folder.path() / "parent.vmdk");
            create("parent.vmdk");
        } else {
            std::unique_ptr<SafeDisk> const parent = open("parent.vmdk", kReadWrite);
            writePattern(*parent, 5, 9);
            parent->flush();
        }
        std::string const actual =
            yx::toHexString(
                open("parent.vmdk", kReadOnly)->getDisk().getDescriptor()->getContentID())
                .toStdString();
        {
            std::unique_ptr<SafeDisk> const child = open("child.vmdk", kReadWrite);
            EXPECT_TRUE(throwsIOError(
                yx::CIOError::CorruptData,
                "VMDK parent disk has changed, but a child disk depended on it.",
                {{"parentURI", folder.uri("parent.vmdk").toString(true).toStdString()},
                 {"childURI", folder.uri("child.vmdk").toString(true).toStdString()},
                 {"expectedContentID", expected},
                 {"actualContentID", actual}},
                [&] { readGrain(*child, 0); }));
            EXPECT_TRUE(sameBytes(pattern(kGrainBytes, 3), readGrain(*child, 1)));
            EXPECT_THROW(child->makeGrainIndependentOfParent(0), yx::CIOError);
            writePattern(*child, 2, 4);
            child->flush();
        }
        std::unique_ptr<SafeDisk> const child = open("child.vmdk", kReadOnly);
        EXPECT_TRUE(sameBytes(pattern(kGrainBytes, 4), readGrain(*child, 2)));
        EXPECT_TRUE(sameBytes(pattern(kGrainBytes, 3), readGrain(*child, 1)));
        std::filesystem::remove(folder.path() / "child.vmdk");
        std::filesystem::remove(folder.path() / "parent.vmdk");
    }
}

TEST_F(Devices, ParentInUseByAChildCannotBeChanged) {
    createChild();
    std::unique_ptr<SafeDisk> const child = open("child.vmdk", kReadWrite);
    EXPECT_TRUE(sameBytes(pattern(kGrainBytes, 1), readGrain(*child, 0)));
    EXPECT_THROW(open("parent.vmdk", kReadWrite), yx::CLockFileError);
}

TEST_F(Devices, FolderThatMayNotBeWrittenLetsDisksBeRead) {
    {
        std::unique_ptr<SafeDisk> const disk = create("disk.vmdk");
        writePattern(*disk, 0, 1);
        disk->flush();
    }
    ::chmod((folder.path() / "disk.vmdk").c_str(), 0666);
    ::chmod(folder.path().c_str(), 0555);
    {
        UnprivilegedScope const scope;
        EXPECT_TRUE(
            sameBytes(pattern(kGrainBytes, 1), readGrain(*open("disk.vmdk", kReadOnly), 0)));
        EXPECT_THROW(open("disk.vmdk", kReadWrite), yx::CLockFileError);
        try {
            LogCapture const log;
            create("new.vmdk");
            ADD_FAILURE() << "a disk was made in a folder that may not be written";
        } catch (yx::CIOError const& error) {
            EXPECT_EQ(yx::CIOError::AccessDenied, error.getIOCode()) << error.what();
        }
    }
    EXPECT_EQ((std::set<std::string>{"disk.vmdk"}), fileNames());
}

TEST_F(Devices, DeviceThatRunsFullInTheMiddleOfAnImportHoldsNothingAfterwards) {
    TempDirectory const images;
    std::string const image = (images.path() / "image").string();
    Bytes const content = pattern(4 << 20, 5);
    std::ofstream(image, std::ios::binary)
        .write(reinterpret_cast<char const*>(content.data()),
               static_cast<std::streamsize>(content.size()));
    SmallDevice const device(folder.path());
    if (!device.isMounted())
        GTEST_SKIP() << "mounting a small file system is not permitted here";
    for (Arguments const& options :
         {Arguments{}, Arguments{"--compressed"}, Arguments{"--split", "3M"},
          Arguments{"--compressed", "--split", "8M"}}) {
        Outcome const outcome =
            RunningProgram(folder.path(),
                           joined({{KELM_TOOL, "import", image, "disk.vmdk"}, options}))
                .finish();
        EXPECT_EQ(9, outcome.status) << outcome.err;
        EXPECT_NE(std::string::npos, outcome.err.find("No space left on device")) << outcome.err;
        EXPECT_EQ(std::set<std::string>(), fileNames());
    }
}

} // namespace
} // namespace test_support

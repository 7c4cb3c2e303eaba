#include "host/disk/disk_file_system.h"

#include <filesystem>
#include <fstream>
#include <sstream>

#include <gmock/gmock.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include "tests/support/disk_fixture.h"
#include "tests/support/faulty_file_system.h"
#include "tests/support/log_capture.h"
#include "tests/support/recording_file_system.h"
#include "tests/support/temp_directory.h"
#include "tests/support/unprivileged_scope.h"
#include "yx/native_file_system.h"

using testing::ElementsAre;

namespace test_support {
namespace disk_file_system_test {

namespace {

using kelm::host::DiskFileSystem;
using kelm::host::DiskTrust;

constexpr auto kReadOnly = yx::IIOStream::ReadOnly;
constexpr auto kReadWrite = yx::IIOStream::ReadWrite;

constexpr char kOutside[] = "The disk names a file outside of its folder. If you trust the disk, "
                            "allow that file's folder (--allow-path, allow-path=).";
constexpr char kFileInUse[] =
    "The disk is in use: its file is held by another program or another open disk.";
constexpr char kLockFileInUse[] =
    "The disk is in use: its lock file is held by another program or another open disk.";

/// Disks that the library opens through the wrapper, in folders of the operating system.
class DiskFileSystemTest : public testing::Test {
protected:
    /// An open disk, and what it is open through.
    struct Opened {
        yx::P<DiskFileSystem> files;
        yx::P<kelm::CVMDKDisk> disk;
    };

    Opened open(std::string const& name, yx::IIOStream::Access access = kReadOnly,
                DiskTrust const& trust = {}) {
        Opened opened;
        opened.files =
            yx::makeObject<DiskFileSystem>(native.get(), folder.uri(name), access, trust);
        opened.disk = yx::makeObject<kelm::CVMDKDisk>(opened.files.get(), folder.uri(name), access,
                                                      "", 1, nullptr, nullptr);
        return opened;
    }

    /// Makes a disk whose first bytes are `content`.
    void make(std::string const& name, std::string const& content,
              DiskKind const& kind = kindNamed("plain"), std::string const& parent = "") {
        unsigned int parentID = kNoParentID;
        if (!parent.empty())
            parentID = open(parent).disk->getDescriptor()->getContentID();
        yx::P<kelm::CVMDKDisk> const disk = kelm::CVMDKDisk::create(
            native.get(), folder.uri(name), kSmallestDiskBytes, "", kind.compressed, 1,
            kind.fileSizeLimit, yx::String::fromUTF8(parent), parentID, kind.onDemand);
        if (!content.empty())
            write(*disk, content);
    }

    static void write(kelm::CVMDKDisk& disk, std::string const& content, __int64 position = 0) {
        disk.seek(position);
        disk.write(content.data(), static_cast<int>(content.size()));
        disk.flushChanges();
    }

    static std::string read(kelm::CVMDKDisk& disk, std::size_t count = 3, __int64 position = 0) {
        std::string content(count, '?');
        disk.seek(position);
        disk.read(content.data(), static_cast<int>(count));
        return content;
    }

    std::string readDisk(std::string const& name) { return read(*open(name).disk); }

    std::string path(std::string const& name) const { return (folder.path() / name).string(); }

    std::string contentOf(std::string const& name) const {
        std::ifstream file(path(name), std::ios::binary);
        std::ostringstream content;
        content << file.rdbuf();
        return content.str();
    }

    void putText(std::string const& name, std::string const& text) const {
        std::ofstream(path(name), std::ios::binary) << text;
    }

    /// A descriptor file of a disk with one extent.
    void putDescriptor(std::string const& name, std::string const& extent,
                       std::string const& more = "") const {
        putText(name, "# Disk DescriptorFile\nversion=1\nencoding=\"UTF-8\"\nCID=12345678\n"
                      "parentCID=ffffffff\ncreateType=\"twoGbMaxExtentSparse\"\n" +
                          more + "RW 16384 SPARSE \"" + extent + "\"\n" + std::string(400, '\0'));
    }

    testing::AssertionResult isInUse(std::string const& name, yx::IIOStream::Access access,
                                     std::string const& message = kFileInUse) {
        try {
            open(name, access);
        } catch (yx::CLockFileError const& error) {
            return error.getMessage() == yx::String::fromUTF8(message)
                       ? testing::AssertionSuccess()
                       : testing::AssertionFailure() << error.getMessage();
        }
        return testing::AssertionFailure() << "not in use";
    }

    testing::AssertionResult reachesOutside(std::string const& disk, std::string const& file,
                                            yx::IIOStream::Access access = kReadOnly) {
        std::filesystem::path const main = folder.path() / disk;
        return throwsIOError(
            yx::CIOError::NotAllowed, kOutside,
            {{"uri", toURI(file).toString(true).toStdString()},
             {"folder", toURI(main.parent_path()).toString(true).toStdString() + "/"}},
            [&] { open(disk, access); });
    }

    TempDirectory folder;
    yx::P<yx::CNativeFileSystem> native =
        yx::makeObject<yx::CNativeFileSystem>(yx::NativeFlush::ToSystem);
};

// Names

TEST_F(DiskFileSystemTest, ARenamedDiskIsItself) {
    for (char const* const kind : {"plain", "compressed"}) {
        make("full.vmdk", "old", kindNamed(kind));
        std::filesystem::rename(path("full.vmdk"), path("old.vmdk"));
        make("full.vmdk", "new", kindNamed(kind));
        EXPECT_EQ("old", readDisk("old.vmdk")) << kind;
        EXPECT_EQ("new", readDisk("full.vmdk")) << kind;
        std::filesystem::remove(path("full.vmdk"));
        EXPECT_EQ("old", readDisk("old.vmdk")) << kind;
        std::filesystem::remove(path("old.vmdk"));
    }
}

TEST_F(DiskFileSystemTest, ACopyIsWrittenToAndItsOriginalIsNotTouched) {
    make("a.vmdk", "one");
    std::filesystem::copy(path("a.vmdk"), path("b.vmdk"));
    std::string const before = contentOf("a.vmdk");
    // Even for looking at it, the original would have to be free.
    Opened const holder = open("a.vmdk", kReadWrite);
    {
        Opened const copy = open("b.vmdk", kReadWrite);
        write(*copy.disk, "two");
        copy.disk->storeDescriptor();
    }
    EXPECT_EQ("two", readDisk("b.vmdk"));
    EXPECT_EQ(before, contentOf("a.vmdk"));
    EXPECT_NE(std::string::npos, contentOf("b.vmdk").find("SPARSE \"b.vmdk\"\n"));
}

TEST_F(DiskFileSystemTest, ReadingARenamedDiskChangesNoByte) {
    make("a.vmdk", "one");
    std::filesystem::rename(path("a.vmdk"), path("b.vmdk"));
    std::string const before = contentOf("b.vmdk");
    EXPECT_EQ("one", readDisk("b.vmdk"));
    EXPECT_EQ(before, contentOf("b.vmdk"));
}

TEST_F(DiskFileSystemTest, ARenamedParentIsItself) {
    make("base.vmdk", "old");
    std::filesystem::rename(path("base.vmdk"), path("kept.vmdk"));
    make("child.vmdk", "", kindNamed("plain"), "kept.vmdk");
    make("base.vmdk", "new");
    EXPECT_EQ("old", readDisk("child.vmdk"));
}

TEST_F(DiskFileSystemTest, ARenamedTextKeepsItsExtents) {
    make("a.vmdk", "one", kindNamed("split"));
    std::filesystem::rename(path("a.vmdk"), path("b.vmdk"));
    EXPECT_EQ("one", readDisk("b.vmdk"));
}

TEST_F(DiskFileSystemTest, TheRightNameIsStoredByOneWriteOfOneSector) {
    make("a.vmdk", "one");
    std::filesystem::rename(path("a.vmdk"), path("monday.vmdk"));
    auto const record = yx::makeObject<RecordingFileSystem>(native.get());
    yx::P<DiskFileSystem> const files =
        yx::makeObject<DiskFileSystem>(record.get(), folder.uri("monday.vmdk"), kReadWrite);
    {
        yx::makeObject<kelm::CVMDKDisk>(files.get(), folder.uri("monday.vmdk"), kReadWrite, "", 1,
                                        nullptr, nullptr);
        files->storeOwnName();
        files->storeOwnName();
    }
    EXPECT_THAT(
        record->lines({FileOperation::Kind::Write, FileOperation::Kind::Flush}, "monday.vmdk"),
        ElementsAre("write monday.vmdk 512+512", "flush monday.vmdk"));
    EXPECT_NE(std::string::npos, contentOf("monday.vmdk").find("SPARSE \"monday.vmdk\"\n"));
    EXPECT_EQ("one", read(*yx::makeObject<kelm::CVMDKDisk>(native.get(), folder.uri("monday.vmdk"),
                                                           kReadOnly, "", 1, nullptr, nullptr)));
}

TEST_F(DiskFileSystemTest, ARenamedDiskInMemoryIsItselfToo) {
    auto const memory = yx::makeObject<yx::CMemoryFileSystem>();
    yx::CURI const uri("mem:///disks/a.vmdk");
    yx::CURI const copy("mem:///disks/copy.vmdk");
    write(*kelm::CVMDKDisk::create(memory.get(), uri, kSmallestDiskBytes, "", true, 1, -1, "",
                                   kNoParentID, false),
          "one");
    memory->putFile(copy, memory->getFile(uri));
    memory->deleteFile(uri, false);
    auto const files = yx::makeObject<DiskFileSystem>(memory.get(), copy, kReadWrite);
    auto const disk =
        yx::makeObject<kelm::CVMDKDisk>(files.get(), copy, kReadWrite, "", 1, nullptr, nullptr);
    EXPECT_EQ("one", read(*disk));
    write(*disk, "two");
    EXPECT_EQ("two", read(*disk));
    EXPECT_FALSE(memory->fileExists(uri));
}

// Locks

TEST_F(DiskFileSystemTest, ReadersStandBesideEachOther) {
    make("a.vmdk", "one");
    std::filesystem::create_hard_link(path("a.vmdk"), path("b.vmdk"));
    Opened const first = open("a.vmdk");
    Opened const second = open("b.vmdk");
    EXPECT_EQ("one", read(*first.disk));
    EXPECT_EQ("one", read(*second.disk));
    EXPECT_TRUE(isInUse("a.vmdk", kReadWrite, kLockFileInUse));
    EXPECT_TRUE(isInUse("b.vmdk", kReadWrite, kLockFileInUse));
}

TEST_F(DiskFileSystemTest, ALinkUnderTheNameOfTheLockFileIsNotFollowed) {
    constexpr char kIsLink[] = "The name of the lock file belongs to a symbolic link.";
    make("a.vmdk", "one");
    std::ofstream(path("empty")) << "";
    std::filesystem::create_symlink("empty", path("a.vmdk.lock"));
    EXPECT_TRUE(isInUse("a.vmdk", kReadOnly, kIsLink));
    EXPECT_TRUE(isInUse("a.vmdk", kReadWrite, kIsLink));
    EXPECT_TRUE(std::filesystem::remove(path("a.vmdk.lock")));
    EXPECT_EQ(0U, std::filesystem::file_size(path("empty")));

    // Where nothing is at its end a reader goes on without a lock.
    std::filesystem::create_symlink("none", path("a.vmdk.lock"));
    EXPECT_EQ("one", readDisk("a.vmdk"));
    EXPECT_TRUE(isInUse("a.vmdk", kReadWrite, kIsLink));
    EXPECT_TRUE(std::filesystem::is_symlink(path("a.vmdk.lock")));
    EXPECT_FALSE(std::filesystem::exists(path("none")));
}

TEST_F(DiskFileSystemTest, AFileThatIsLostWhileTheDiskIsOpenIsNeitherOpenedNorMadeNorDeleted) {
    make("a.vmdk", "one", kindNamed("split"));
    for (char const* const name : {"a.vmdk", "a-s00001.vmdk"}) {
        for (yx::IIOStream::Access const access : {kReadOnly, kReadWrite}) {
            SCOPED_TRACE(testing::Message() << name << ", access " << access);
            Opened const disk = open("a.vmdk", kReadWrite);
            unsigned int options = 0;
            auto const openFile = [&] {
                disk.files->openFile(folder.uri(name), access, &options)->close();
            };
            EXPECT_NO_THROW(openFile());
            EXPECT_NO_THROW(openFile());
            std::filesystem::rename(path(name), path("kept"));
            std::string const uri = folder.uri(name).toString(true).toStdString();
            EXPECT_TRUE(throwsIOError(yx::CIOError::NotFound,
                                      "Cannot open the file: No such file or directory",
                                      {{"uri", uri}}, openFile));
            EXPECT_FALSE(std::filesystem::exists(path(name)));
            putText(name, "another");
            auto const isRefused = [&](std::function<void()> const& action) {
                return throwsIOError(
                    yx::CIOError::IOFailure,
                    "The file was replaced by another one while the disk was open.", {{"uri", uri}},
                    action);
            };
            EXPECT_TRUE(isRefused(openFile));
            EXPECT_TRUE(isRefused([&] { disk.files->deleteFile(folder.uri(name), false); }));
            EXPECT_NO_THROW(disk.files->deleteFile(folder.uri(name), true));
            EXPECT_EQ("another", contentOf(name));
            std::filesystem::rename(path("kept"), path(name));
            EXPECT_NO_THROW(openFile());
        }
    }
}

TEST_F(DiskFileSystemTest, AFileThatTheDiskItselfReplacedIsOpened) {
    make("a.vmdk", "", kindNamed("splitOnDemand"));
    Opened const disk = open("a.vmdk", kReadWrite);
    yx::CURI const extent = folder.uri("a-s00001.vmdk");
    unsigned int options = 0;
    for (int round = 0; round < 2; ++round) {
        disk.files->openFile(extent, kReadWrite, &options)->close();
        disk.files->deleteFile(extent, false);
        disk.files->openFile(extent, kReadWrite, &options)->close();
        disk.files->moveFile(extent, folder.uri("aside" + std::to_string(round)));
    }
}

TEST_F(DiskFileSystemTest, NothingIsWrittenToAFileThatReplacedOneOfTheDisk) {
    LogCapture const quiet;
    make("a.vmdk", "one", kindNamed("split"));
    {
        Opened const disk = open("a.vmdk", kReadWrite);
        write(*disk.disk, "two");
        // The disk leaves its first extent.
        write(*disk.disk, "end", kSmallestDiskBytes - 3);
        std::filesystem::copy(path("a-s00000.vmdk"), path("another"));
        std::filesystem::rename(path("another"), path("a-s00000.vmdk"));
        std::string const before = contentOf("a-s00000.vmdk");
        EXPECT_TRUE(
            throwsIOError(yx::CIOError::IOFailure,
                          "The file was replaced by another one while the disk was open.",
                          {{"uri", folder.uri("a-s00000.vmdk").toString(true).toStdString()}},
                          [&] { write(*disk.disk, "six"); }));
        EXPECT_EQ(before, contentOf("a-s00000.vmdk"));
    }
    EXPECT_EQ("two", readDisk("a.vmdk"));
}

TEST_F(DiskFileSystemTest, AWriterIsAloneWhateverTheName) {
    make("a.vmdk", "one");
    std::filesystem::create_directory(path("other"));
    std::filesystem::create_hard_link(path("a.vmdk"), path("other/hard.vmdk"));
    std::filesystem::create_symlink(path("a.vmdk"), path("soft.vmdk"));
    Opened const writer = open("a.vmdk", kReadWrite);
    for (char const* const name : {"other/hard.vmdk", "soft.vmdk"}) {
        EXPECT_TRUE(isInUse(name, kReadOnly)) << name;
        EXPECT_TRUE(isInUse(name, kReadWrite)) << name;
    }
    EXPECT_TRUE(isInUse("a.vmdk", kReadOnly, kLockFileInUse));
}

TEST_F(DiskFileSystemTest, ExtentsOfACopiedTextHaveOneWriter) {
    make("a.vmdk", "one", kindNamed("split"));
    std::filesystem::copy(path("a.vmdk"), path("b.vmdk"));
    Opened const writer = open("a.vmdk", kReadWrite);
    EXPECT_TRUE(isInUse("b.vmdk", kReadWrite));
    EXPECT_TRUE(isInUse("b.vmdk", kReadOnly));
}

TEST_F(DiskFileSystemTest, ExtentsThatAreMadeOnDemandAreLockedToo) {
    make("a.vmdk", "", kindNamed("splitOnDemand"));
    std::filesystem::copy(path("a.vmdk"), path("b.vmdk"));
    std::filesystem::copy(path("a-s00000.vmdk"), path("first.vmdk"));
    std::string text = contentOf("b.vmdk");
    text.replace(text.find("a-s00000.vmdk"), 13, "first.vmdk");
    putText("b.vmdk", text + "   ");
    __int64 const last = kSmallestDiskBytes - 3;
    Opened const writer = open("a.vmdk", kReadWrite);
    write(*writer.disk, "end", last);
    Opened const other = open("b.vmdk", kReadWrite);
    EXPECT_THROW(write(*other.disk, "END", last), yx::CLockFileError);
    EXPECT_THROW(read(*other.disk, 3, last), yx::CLockFileError);
    EXPECT_EQ("end", read(*writer.disk, 3, last));
}

TEST_F(DiskFileSystemTest, ParentsAreHeldAgainstWritersByEveryName) {
    make("base.vmdk", "one");
    make("child.vmdk", "", kindNamed("plain"), "base.vmdk");
    std::filesystem::create_hard_link(path("base.vmdk"), path("hard.vmdk"));
    Opened const child = open("child.vmdk", kReadWrite);
    EXPECT_EQ("one", read(*child.disk));
    EXPECT_TRUE(isInUse("hard.vmdk", kReadWrite));
    EXPECT_EQ("one", readDisk("hard.vmdk"));
}

TEST_F(DiskFileSystemTest, LocksEndWithTheDisk) {
    make("a.vmdk", "one");
    std::filesystem::create_hard_link(path("a.vmdk"), path("b.vmdk"));
    { Opened const writer = open("a.vmdk", kReadWrite); }
    EXPECT_NO_THROW(open("b.vmdk", kReadWrite));
}

TEST_F(DiskFileSystemTest, LocksThatTheCallerHoldsAreNoneInTheWay) {
    make("a.vmdk", "one");
    auto const locks = yx::makeObject<kelm::host::FileLocks>();
    EXPECT_TRUE(locks->take(folder.uri("a.vmdk"), kelm::host::FileLock::Type::Exclusive));
    EXPECT_TRUE(isInUse("a.vmdk", kReadOnly));
    auto const files = yx::makeObject<DiskFileSystem>(native.get(), folder.uri("a.vmdk"),
                                                      kReadWrite, DiskTrust(), locks.get());
    EXPECT_EQ("one", read(*yx::makeObject<kelm::CVMDKDisk>(files.get(), folder.uri("a.vmdk"),
                                                           kReadWrite, "", 1, nullptr, nullptr)));
}

// Lock files that a reader may not write

class ForeignLockFile : public DiskFileSystemTest {
protected:
    ForeignLockFile() {
        make("a.vmdk", "one");
        std::filesystem::permissions(folder.path(), std::filesystem::perms(0755));
        std::filesystem::permissions(path("a.vmdk"), std::filesystem::perms(0644));
    }

    void putLockFile(mode_t mode) const {
        putText("a.vmdk.lock", "");
        ::chmod(path("a.vmdk.lock").c_str(), mode);
    }
};

TEST_F(ForeignLockFile, ThatIsStaleKeepsNoReaderOut) {
    for (mode_t const mode : {0644, 0600}) {
        putLockFile(mode);
        UnprivilegedScope const unprivileged;
        EXPECT_EQ("one", readDisk("a.vmdk")) << mode;
    }
    EXPECT_TRUE(std::filesystem::exists(path("a.vmdk.lock")));
}

TEST_F(ForeignLockFile, ThatReadersHoldKeepsNoReaderOut) {
    Opened const reader = open("a.vmdk");
    ::chmod(path("a.vmdk.lock").c_str(), 0644);
    UnprivilegedScope const unprivileged;
    EXPECT_EQ("one", readDisk("a.vmdk"));
}

TEST_F(ForeignLockFile, ThatAWriterHoldsKeepsReadersOut) {
    Opened const writer = open("a.vmdk", kReadWrite);
    ::chmod(path("a.vmdk.lock").c_str(), 0644);
    UnprivilegedScope const unprivileged;
    EXPECT_TRUE(isInUse("a.vmdk", kReadOnly, kLockFileInUse));
}

TEST_F(ForeignLockFile, ThatCannotBeReadLeavesTheQuestionToTheDisksOwnFile) {
    Opened const writer = open("a.vmdk", kReadWrite);
    ::chmod(path("a.vmdk.lock").c_str(), 0600);
    UnprivilegedScope const unprivileged;
    EXPECT_TRUE(isInUse("a.vmdk", kReadOnly, kFileInUse));
}

TEST_F(ForeignLockFile, IsSharedByTheReaderSoThatWritersSeeIt) {
    putLockFile(0644);
    Opened reader;
    {
        UnprivilegedScope const unprivileged;
        reader = open("a.vmdk");
    }
    EXPECT_TRUE(isInUse("a.vmdk", kReadWrite, kLockFileInUse));
}

TEST_F(ForeignLockFile, KeepsWritersOut) {
    putLockFile(0644);
    ::chmod(path("a.vmdk").c_str(), 0666);
    UnprivilegedScope const unprivileged;
    EXPECT_THROW(open("a.vmdk", kReadWrite), yx::CLockFileError);
}

// Reach

class Reach : public DiskFileSystemTest {
protected:
    Reach() {
        std::filesystem::create_directory(path("in"));
        std::filesystem::create_directory(path("in/below"));
        std::filesystem::create_directory(path("out"));
        make("out/secret.vmdk", "key");
    }

    TempDirectory elsewhere;
};

TEST_F(Reach, EndsAtTheFolderOfTheDisk) {
    std::string const secret = path("out/secret.vmdk");
    for (std::string const& name : {secret, std::string("../out/secret.vmdk"),
                                    folder.uri("out/secret.vmdk").toString(true).toStdString(),
                                    std::string("below/../../out/secret.vmdk")}) {
        putDescriptor("in/disk.vmdk", name);
        EXPECT_TRUE(reachesOutside("in/disk.vmdk", secret)) << name;
        EXPECT_TRUE(reachesOutside("in/disk.vmdk", secret, kReadWrite)) << name;
    }
    EXPECT_FALSE(std::filesystem::exists(path("out/secret.vmdk.lock")));
}

TEST_F(Reach, HoldsTheFolderAndWhatIsBelow) {
    make("in/below/a.vmdk", "one");
    putDescriptor("in/disk.vmdk", "below/a.vmdk");
    EXPECT_EQ("one", readDisk("in/disk.vmdk"));
    putDescriptor("in/below/disk.vmdk", path("in/below/a.vmdk"));
    EXPECT_EQ("one", readDisk("in/below/disk.vmdk"));
}

TEST_F(Reach, FollowsLinks) {
    std::filesystem::create_symlink(path("out/secret.vmdk"), path("in/link.vmdk"));
    putDescriptor("in/disk.vmdk", "link.vmdk");
    EXPECT_TRUE(reachesOutside("in/disk.vmdk", path("in/link.vmdk")));
    std::filesystem::create_directory_symlink(path("out"), path("in/folder"));
    putDescriptor("in/disk.vmdk", "folder/secret.vmdk");
    EXPECT_TRUE(reachesOutside("in/disk.vmdk", path("in/folder/secret.vmdk")));
    make("in/a.vmdk", "one");
    std::filesystem::create_symlink("a.vmdk", path("in/inside.vmdk"));
    putDescriptor("in/disk.vmdk", "inside.vmdk");
    EXPECT_EQ("one", readDisk("in/disk.vmdk"));
}

TEST_F(Reach, AFolderWhoseNameBeginsAlikeIsAnother) {
    std::filesystem::create_directory(path("inner"));
    make("inner/a.vmdk", "one");
    putDescriptor("in/disk.vmdk", "../inner/a.vmdk");
    EXPECT_TRUE(reachesOutside("in/disk.vmdk", path("inner/a.vmdk")));
}

TEST_F(Reach, NothingIsMadeOutside) {
    make("in/a.vmdk", "");
    std::string const onDemand = "yxCreateExtentFilesOnDemand=\"true\"\n";
    std::filesystem::create_symlink(path("out/bashrc"), path("in/dangling.vmdk"));
    for (std::string const& target : {path("out/bashrc"), path("in/dangling.vmdk")}) {
        putDescriptor("in/disk.vmdk", "a.vmdk",
                      onDemand + "RW 16384 SPARSE \"a.vmdk\"\nRW 16384 SPARSE \"" + target +
                          "\"\n");
        EXPECT_TRUE(reachesOutside("in/disk.vmdk", target, kReadWrite));
    }
    EXPECT_FALSE(std::filesystem::exists(path("out/bashrc")));
}

TEST_F(Reach, IsWidenedByName) {
    putDescriptor("in/disk.vmdk", "../out/secret.vmdk");
    EXPECT_EQ("key", read(*open("in/disk.vmdk", kReadOnly, {{folder.uri("out")}, false}).disk));
    EXPECT_THROW(open("in/disk.vmdk", kReadOnly, {{folder.uri("in/below")}, false}), yx::CIOError);
}

TEST_F(Reach, MissingFilesAreMissing) {
    for (char const* const name : {"a.vmdk", "nowhere/a.vmdk", "/nowhere/a.vmdk"}) {
        putDescriptor("in/disk.vmdk", name);
        try {
            open("in/disk.vmdk");
            ADD_FAILURE() << name;
        } catch (yx::CIOError const& error) {
            EXPECT_EQ(yx::CIOError::NotFound, error.getIOCode()) << name;
        }
    }
}

TEST_F(Reach, HoldsRegularFilesOnly) {
    ASSERT_EQ(0, ::mkfifo(path("in/pipe").c_str(), 0600));
    std::filesystem::create_directory(path("in/dir.vmdk"));
    for (char const* const name : {"in/pipe", "in/dir.vmdk"}) {
        putDescriptor("in/disk.vmdk", path(name));
        EXPECT_TRUE(throwsIOError(yx::CIOError::NotAllowed,
                                  "An extent of the disk is no regular file.",
                                  {{"uri", folder.uri(name).toString(true).toStdString()}},
                                  [&] { open("in/disk.vmdk"); }));
    }
}

TEST_F(Reach, AParentMayLieElsewhereAndObeysTheSameRule) {
    make("out/base.vmdk", "one");
    make("in/child.vmdk", "");
    unsigned int const id = open("out/base.vmdk").disk->getDescriptor()->getContentID();
    std::ostringstream parent;
    parent << std::hex << "parentCID=" << id << "\nparentFileNameHint=\"../out/base.vmdk\"\n";
    auto const putChild = [&](std::string const& hint) {
        std::ostringstream text;
        text << "# Disk DescriptorFile\nversion=1\nCID=1\nparentCID=" << std::hex << id
             << "\nparentFileNameHint=\"" << hint
             << "\"\ncreateType=\"twoGbMaxExtentSparse\"\nRW 16384 SPARSE \"child.vmdk\"\n";
        putText("in/disk.vmdk", text.str());
    };
    putChild("../out/base.vmdk");
    EXPECT_EQ("one", readDisk("in/disk.vmdk"));

    LogCapture const quiet;
    make("in/mine.vmdk", "two");
    putDescriptor("out/far.vmdk", path("in/mine.vmdk"));
    putChild("../out/far.vmdk");
    Opened const child = open("in/disk.vmdk");
    EXPECT_TRUE(throwsIOError(yx::CIOError::NotAllowed, kOutside,
                              {{"uri", folder.uri("in/mine.vmdk").toString(true).toStdString()},
                               {"folder", folder.uri("out").toString(true).toStdString() + "/"}},
                              [&] { read(*child.disk); }));
}

TEST_F(Reach, NothingIsMadeBesideAParentThatIsNoDisk) {
    putText("out/passwd", "root:x:0:0:root:/root:/bin/bash\n");
    make("in/child.vmdk", "");
    putText("in/disk.vmdk",
            "# Disk DescriptorFile\nversion=1\nCID=1\nparentCID=2\nparentFileNameHint=\"" +
                path("out/passwd") +
                "\"\ncreateType=\"twoGbMaxExtentSparse\"\nRW 16384 SPARSE \"child.vmdk\"\n");
    auto const record = yx::makeObject<RecordingFileSystem>(native.get());
    auto const files =
        yx::makeObject<DiskFileSystem>(record.get(), folder.uri("in/disk.vmdk"), kReadOnly);
    auto const disk = yx::makeObject<kelm::CVMDKDisk>(files.get(), folder.uri("in/disk.vmdk"),
                                                      kReadOnly, "", 1, nullptr, nullptr);
    LogCapture const quiet;
    EXPECT_THROW(read(*disk), yx::CError);
    for (std::string const& line : record->lines({FileOperation::Kind::Open}))
        EXPECT_EQ(std::string::npos, line.find("passwd.lock")) << line;
}

TEST_F(Reach, AParentThatCannotBeLookedAtIsNotReadWithoutALock) {
    make("out/base.vmdk", "one");
    make("in/a.vmdk", "");
    unsigned int const id = open("out/base.vmdk").disk->getDescriptor()->getContentID();
    std::ostringstream text;
    text << "# Disk DescriptorFile\nversion=1\nCID=1\nparentCID=" << std::hex << id
         << "\nparentFileNameHint=\"../out/base.vmdk\"\ncreateType=\"twoGbMaxExtentSparse\"\n"
            "RW 16384 SPARSE \"a.vmdk\"\n";
    putText("in/disk.vmdk", text.str());
    auto const faulty = yx::makeObject<FaultyFileSystem>(native.get());
    auto const files =
        yx::makeObject<DiskFileSystem>(faulty.get(), folder.uri("in/disk.vmdk"), kReadOnly);
    auto const disk = yx::makeObject<kelm::CVMDKDisk>(files.get(), folder.uri("in/disk.vmdk"),
                                                      kReadOnly, "", 1, nullptr, nullptr);
    LogCapture const quiet;
    faulty->add({.kinds = {FileOperation::Kind::Open}, .file = "base.vmdk"});
    EXPECT_TRUE(throwsIOError(yx::CIOError::IOFailure, "Injected failure.",
                              {{"uri", folder.uri("out/base.vmdk").toString(true).toStdString()}},
                              [&] { read(*disk); }));
    EXPECT_EQ("one", read(*disk));
    EXPECT_TRUE(std::filesystem::exists(path("out/base.vmdk.lock")));
}

TEST_F(Reach, ParentsAreOnlyRead) {
    make("out/base.vmdk", "one");
    make("in/a.vmdk", "");
    unsigned int const id = open("out/base.vmdk").disk->getDescriptor()->getContentID();
    std::ostringstream text;
    text << "# Disk DescriptorFile\nversion=1\nCID=1\nparentCID=" << std::hex << id
         << "\nparentFileNameHint=\"../out/base.vmdk\"\ncreateType=\"twoGbMaxExtentSparse\"\n"
            "RW 16384 SPARSE \"a.vmdk\"\n";
    putText("in/disk.vmdk", text.str());
    Opened const child = open("in/disk.vmdk", kReadWrite);
    EXPECT_EQ("one", read(*child.disk));
    yx::CURI const base = folder.uri("out/base.vmdk");
    unsigned int reserved = 0;
    for (auto const& action :
         {std::function<void()>([&] { child.files->openFile(base, kReadWrite, &reserved); }),
          std::function<void()>([&] { child.files->deleteFile(base, true); })})
        EXPECT_TRUE(throwsIOError(yx::CIOError::NotAllowed, "A file of a parent disk is only read.",
                                  {{"uri", base.toString(true).toStdString()}}, action));
    EXPECT_TRUE(std::filesystem::exists(path("out/base.vmdk")));
}

TEST_F(Reach, InMemoryIsComparedByURI) {
    auto const memory = yx::makeObject<yx::CMemoryFileSystem>();
    auto const openDisk = [&](std::string const& extent, DiskTrust const& trust = {}) {
        memory->putFile(yx::CURI("mem:///in/disk.vmdk"),
                        toBuffer(fromText("version=1\nCID=1\ncreateType=\"twoGbMaxExtentSparse\"\n"
                                          "RW 16384 SPARSE \"" +
                                          extent + "\"\n")));
        auto const files = yx::makeObject<DiskFileSystem>(
            memory.get(), yx::CURI("mem:///in/disk.vmdk"), kReadOnly, trust);
        yx::makeObject<kelm::CVMDKDisk>(files.get(), yx::CURI("mem:///in/disk.vmdk"), kReadOnly, "",
                                        1, nullptr, nullptr);
    };
    for (char const* const name : {"mem:///out/a.vmdk", "mem:///in/a.vmdk"})
        kelm::CVMDKDisk::create(memory.get(), yx::CURI(name), kSmallestDiskBytes, "", false, 1, -1,
                                "", kNoParentID, false);
    EXPECT_NO_THROW(openDisk("a.vmdk"));
    EXPECT_NO_THROW(openDisk("../out/a.vmdk", {{yx::CURI("mem:///out")}, false}));
    EXPECT_TRUE(throwsIOError(yx::CIOError::NotAllowed, kOutside,
                              {{"uri", "mem:///out/a.vmdk"}, {"folder", "mem:///in/"}},
                              [&] { openDisk("../out/a.vmdk"); }));
    EXPECT_TRUE(throwsIOError(yx::CIOError::NotAllowed, kOutside,
                              {{"uri", "file:///etc/passwd"}, {"folder", "mem:///in/"}},
                              [&] { openDisk("file:///etc/passwd"); }));
}

TEST_F(Reach, GrainsAboveTheLimitAreRefusedUnlessAllowed) {
    Buffer const zeroBuffer = toBuffer(zeros(65536));
    constexpr __int64 kLargestGrainSectors = __int64{64} << 11;
    for (__int64 const sectors : {kLargestGrainSectors, 2 * kLargestGrainSectors}) {
        std::filesystem::remove(path("in/a.vmdk"));
        kelm::createEmptyVMDKSparseExtentFile(native.get(), folder.uri("in/a.vmdk"), false, 1,
                                              sectors, zeroBuffer, nullptr, 0, Buffer());
        putDescriptor("in/disk.vmdk", "a.vmdk");
        if (sectors == kLargestGrainSectors) {
            EXPECT_NO_THROW(open("in/disk.vmdk"));
            continue;
        }
        EXPECT_TRUE(throwsIOError(yx::CIOError::NotAllowed,
                                  "The disk has grains of 262144 sectors. If you trust the disk, "
                                  "allow it (--allow-oversize, allow-oversize=true).",
                                  {{"uri", folder.uri("in/a.vmdk").toString(true).toStdString()}},
                                  [&] { open("in/disk.vmdk"); }));
        EXPECT_NO_THROW(open("in/disk.vmdk", kReadOnly, {{}, true}));
    }
}

TEST_F(Reach, MoreExtentsThanTheLimitAreRefusedUnlessAllowed) {
    make("in/a.vmdk", "one");
    std::string lines;
    for (int i = 0; i < 1 << 16; ++i)
        lines += "RW 128 SPARSE \"a.vmdk\"\n";
    putDescriptor("in/disk.vmdk", "a.vmdk", lines);
    EXPECT_TRUE(throwsIOError(yx::CIOError::NotAllowed,
                              "The disk has 65537 extents. If you trust the disk, allow it "
                              "(--allow-oversize, allow-oversize=true).",
                              {{"uri", folder.uri("in/disk.vmdk").toString(true).toStdString()}},
                              [&] { open("in/disk.vmdk"); }));
    EXPECT_EQ("one", read(*open("in/disk.vmdk", kReadOnly, {{}, true}).disk));
    putDescriptor("in/disk.vmdk", "a.vmdk", lines.substr(lines.find('\n') + 1));
    EXPECT_EQ("one", readDisk("in/disk.vmdk"));
}

TEST_F(Reach, ClaimsWithoutFilesAreRefusedUnlessAllowed) {
    make("in/a.vmdk", "one");
    auto const put = [&](std::string const& missing) {
        putDescriptor("in/disk.vmdk", "b.vmdk",
                      "yxCreateExtentFilesOnDemand=\"true\"\nRW 16384 SPARSE \"a.vmdk\"\n"
                      "RW " +
                          missing + " SPARSE \"c.vmdk\"\n");
    };
    // With the 8 MiB of the other one, 1 TiB exactly.
    put("2147467264");
    EXPECT_NO_THROW(open("in/disk.vmdk"));
    put("2147467265");
    EXPECT_TRUE(throwsIOError(yx::CIOError::NotAllowed,
                              "The disk has more than 1099511627776 bytes of extents without a "
                              "file. If you trust the disk, allow it (--allow-oversize, "
                              "allow-oversize=true).",
                              {{"uri", folder.uri("in/disk.vmdk").toString(true).toStdString()}},
                              [&] { open("in/disk.vmdk"); }));
    EXPECT_NO_THROW(open("in/disk.vmdk", kReadOnly, {{}, true}));
}

} // namespace

} // namespace disk_file_system_test
} // namespace test_support

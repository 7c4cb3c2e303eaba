#include "yx/native_file_system.h"

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "tests/support/bytes.h"
#include "tests/support/child_process.h"
#include "tests/support/expect_error.h"
#include "tests/support/unprivileged_scope.h"
#include "tests/yx/native_file_system_fixture.h"
#include "tests/yx/system_call_faults.h"
#include "yx/native_stream.h"
#include "yx/optimizing_io_stream.h"

namespace {

namespace fs = std::filesystem;
namespace faults = system_call_faults;

using faults::Call;
using test_support::fromText;
using test_support::pattern;
using test_support::Props;
using test_support::readAt;
using test_support::readFile;
using test_support::sameBytes;
using test_support::throwsIOError;
using test_support::writeAt;
using yx::CIOError;
using yx::CURI;
using yx::IIOStream;
using yx::IStreamBase;
using NativeFileSystem = NativeFileSystemFixture;

TEST_F(NativeFileSystem, WritesWhatOtherProgramsRead) {
    writeAt(*open("a b.vmdk"), 0, fromText("content"));
    std::ifstream file(path("a b.vmdk"));
    std::string content;
    std::getline(file, content);
    EXPECT_EQ(content, "content");
    EXPECT_EQ(text("a b.vmdk"), "file://" + path("a%20b.vmdk").string());
}

TEST_F(NativeFileSystem, ANewFileGetsTheRightsThatTheMaskLeaves) {
    mode_t const oldMask = ::umask(026);
    open("a");
    ::umask(oldMask);
    struct stat status {};
    ASSERT_EQ(::stat(path("a").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0640U);
}

TEST_F(NativeFileSystem, OpenFilesDoNotReachOtherPrograms) {
    auto const stream = open("a");
    int found = 0;
    for (int descriptor = 0; descriptor < 256; ++descriptor) {
        std::error_code error;
        fs::path const target =
            fs::read_symlink("/proc/self/fd/" + std::to_string(descriptor), error);
        if (target != path("a"))
            continue;
        ++found;
        EXPECT_EQ(::fcntl(descriptor, F_GETFD), FD_CLOEXEC);
    }
    EXPECT_EQ(found, 1);
    stream->close();
}

TEST_F(NativeFileSystem, ClosingAndReleasingGiveTheDescriptorBack) {
    auto const countOpen = [] {
        return std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator());
    };
    auto const before = countOpen();
    auto first = open("a");
    auto second = open("a");
    EXPECT_EQ(countOpen(), before + 2);
    first->close();
    EXPECT_EQ(countOpen(), before + 1);
    second.reset();
    EXPECT_EQ(countOpen(), before);
}

TEST_F(NativeFileSystem, AnotherSchemeNamesNoFile) {
    CURI const uri("http://host/a");
    std::string const message =
        "The URI names no file of the operating system: its scheme is not \"file\".";
    Props const props{{"uri", "http://host/a"}};
    EXPECT_TRUE(throwsIOError(CIOError::NotSupported, message, props, [&] { open(uri); }));
    EXPECT_TRUE(
        throwsIOError(CIOError::NotSupported, message, props, [&] { files->fileExists(uri); }));
    EXPECT_TRUE(throwsIOError(CIOError::NotSupported, message, props,
                              [&] { files->deleteFile(uri, true); }));
}

TEST_F(NativeFileSystem, AFolderIsNoFile) {
    fs::create_directory(path("folder"));
    for (IIOStream::Access const access : {IIOStream::ReadOnly, IIOStream::ReadWrite}) {
        EXPECT_TRUE(throwsIOError(CIOError::AccessDenied, "Cannot open the file: Is a directory",
                                  {{"uri", text("folder")}}, [&] { open("folder", access); }));
    }
    EXPECT_FALSE(files->fileExists(directory.uri("folder")));
    EXPECT_TRUE(throwsIOError(CIOError::AccessDenied, "Cannot delete the file: Is a directory",
                              {{"uri", text("folder")}},
                              [&] { files->deleteFile(directory.uri("folder"), true); }));
}

TEST_F(NativeFileSystem, APipeIsRefusedWithoutWaitingForItsOtherEnd) {
    ASSERT_EQ(::mkfifo(path("pipe").c_str(), 0600), 0);
    for (IIOStream::Access const access : {IIOStream::ReadOnly, IIOStream::ReadWrite}) {
        EXPECT_TRUE(throwsIOError(CIOError::NotSupported, "Cannot open the file: Illegal seek",
                                  {{"uri", text("pipe")}}, [&] { open("pipe", access); }));
    }
}

TEST_F(NativeFileSystem, ASocketIsNotSupported) {
    int const descriptor = ::socket(AF_UNIX, SOCK_STREAM, 0);
    ASSERT_GE(descriptor, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::string const name = path("socket").string();
    ASSERT_LT(name.size(), sizeof address.sun_path);
    name.copy(address.sun_path, name.size());
    ASSERT_EQ(::bind(descriptor, reinterpret_cast<sockaddr const*>(&address), sizeof address), 0);
    ::close(descriptor);
    for (IIOStream::Access const access : {IIOStream::ReadOnly, IIOStream::ReadWrite}) {
        EXPECT_TRUE(throwsIOError(CIOError::NotSupported, "Cannot open the file: Illegal seek",
                                  {{"uri", text("socket")}}, [&] { open("socket", access); }));
    }
}

TEST_F(NativeFileSystem, ADeviceWithoutALengthRefusesToSetIt) {
    auto const stream = open(CURI("file:///dev/null"));
    EXPECT_TRUE(throwsIOError(
        CIOError::NotSupported, "Cannot set the length of the file: Operation not supported",
        {{"uri", "file:///dev/null"}, {"length", "512"}}, [&] { stream->setLength(512); }));
}

TEST_F(NativeFileSystem, ALinkIsNotFollowedWhereThatIsAskedFor) {
    writeAt(*open("a"), 0, fromText("content"));
    fs::create_symlink("a", path("link"));
    fs::create_symlink("none", path("dangling"));
    fs::create_directory(path("folder"));
    fs::create_symlink("folder", path("folder-link"));
    open("folder/a");
    for (IIOStream::Access const access : {IIOStream::ReadOnly, IIOStream::ReadWrite}) {
        for (char const* const name : {"link", "dangling"}) {
            unsigned int options = yx::IFileSystem::DoNotFollowLink;
            EXPECT_TRUE(throwsIOError(
                CIOError::NotAllowed, "The file is a symbolic link.", {{"uri", text(name)}},
                [&] { files->openFile(directory.uri(name), access, &options); }));
        }
        unsigned int options = yx::IFileSystem::DoNotFollowLink;
        EXPECT_EQ(files->openFile(directory.uri("a"), access, &options)->getLength(), 7);
        EXPECT_EQ(files->openFile(directory.uri("folder-link/a"), access, &options)->getLength(),
                  0);
        EXPECT_EQ(files->openFile(directory.uri("link"), access, nullptr)->getLength(), 7);
    }
    EXPECT_FALSE(fs::exists(path("none")));
}

TEST_F(NativeFileSystem, AStreamTellsWhichFileIsOpenWhateverItsName) {
    struct stat before {};
    struct stat opened {};
    auto const stream = open("a");
    auto const* const native = dynamic_cast<yx::INativeStream*>(stream.get());
    ASSERT_NE(native, nullptr);
    ASSERT_EQ(::stat(path("a").c_str(), &before), 0);
    fs::rename(path("a"), path("b"));
    open("a");
    ASSERT_EQ(::fstat(native->getFileDescriptor(), &opened), 0);
    EXPECT_EQ(opened.st_ino, before.st_ino);
    stream->close();
    EXPECT_EQ(native->getFileDescriptor(), -1);
}

TEST_F(NativeFileSystem, AFileBelowAFileIsMissing) {
    open("a");
    for (IIOStream::Access const access : {IIOStream::ReadOnly, IIOStream::ReadWrite}) {
        EXPECT_TRUE(throwsIOError(CIOError::NotFound, "Cannot open the file: Not a directory",
                                  {{"uri", text("a/b")}}, [&] { open("a/b", access); }));
    }
    EXPECT_FALSE(files->fileExists(directory.uri("a/b")));
    files->deleteFile(directory.uri("a/b"), true);
    EXPECT_TRUE(throwsIOError(CIOError::NotFound, "Cannot delete the file: Not a directory",
                              {{"uri", text("a/b")}},
                              [&] { files->deleteFile(directory.uri("a/b"), false); }));
}

TEST_F(NativeFileSystem, AFileInAMissingFolderIsMissingAndNotMade) {
    EXPECT_TRUE(throwsIOError(CIOError::NotFound, "Cannot open the file: No such file or directory",
                              {{"uri", text("none/a")}}, [&] { open("none/a"); }));
}

TEST_F(NativeFileSystem, ANameThatIsTooLongHasNoFile) {
    std::string const name(256, 'n');
    EXPECT_FALSE(files->fileExists(directory.uri(name)));
    EXPECT_TRUE(throwsIOError(CIOError::IOFailure, "Cannot open the file: File name too long",
                              {{"uri", text(name)}}, [&] { open(name); }));
    files->deleteFile(directory.uri(name), true);
    EXPECT_TRUE(throwsIOError(CIOError::IOFailure, "Cannot delete the file: File name too long",
                              {{"uri", text(name)}},
                              [&] { files->deleteFile(directory.uri(name), false); }));
}

TEST_F(NativeFileSystem, RefusalsOfTheSystemAreAccessDenied) {
    fs::permissions(directory.path(), fs::perms(0755));
    open("locked");
    fs::permissions(path("locked"), fs::perms(0));
    fs::create_directory(path("closed"));
    open("closed/a");
    fs::permissions(path("closed"), fs::perms(0));
    test_support::UnprivilegedScope const unprivileged;

    std::string const words = "Permission denied";
    for (std::string const name : {"locked", "closed/a"}) {
        for (IIOStream::Access const access : {IIOStream::ReadOnly, IIOStream::ReadWrite}) {
            EXPECT_TRUE(throwsIOError(CIOError::AccessDenied, "Cannot open the file: " + words,
                                      {{"uri", text(name)}}, [&] { open(name, access); }));
        }
        EXPECT_TRUE(throwsIOError(CIOError::AccessDenied, "Cannot delete the file: " + words,
                                  {{"uri", text(name)}},
                                  [&] { files->deleteFile(directory.uri(name), true); }));
    }
    EXPECT_TRUE(throwsIOError(CIOError::AccessDenied, "Cannot open the file: " + words,
                              {{"uri", text("new")}}, [&] { open("new"); }));
    EXPECT_TRUE(throwsIOError(CIOError::AccessDenied, "Cannot query the file: " + words,
                              {{"uri", text("closed/a")}},
                              [&] { files->fileExists(directory.uri("closed/a")); }));
    EXPECT_TRUE(files->fileExists(directory.uri("locked")));
}

TEST_F(NativeFileSystem, AFileWithoutWriteAccessOpensForReading) {
    fs::permissions(directory.path(), fs::perms(0755));
    writeAt(*open("a"), 0, fromText("abc"));
    fs::permissions(path("a"), fs::perms(0444));
    test_support::UnprivilegedScope const unprivileged;
    EXPECT_TRUE(sameBytes(fromText("abc"), readFile(*files, directory.uri("a"))));
    EXPECT_TRUE(throwsIOError(CIOError::AccessDenied, "Cannot open the file: Permission denied",
                              {{"uri", text("a")}}, [&] { open("a"); }));
}

TEST_F(NativeFileSystem, ABufferedReaderAsksForTheLengthAgainFromTheSecondTimeOn) {
    open("a")->write("abc", 3, nullptr);
    auto const reader =
        yx::makeObject<yx::COptimizingIOStream>(open("a", yx::IIOStream::ReadOnly).get());
    EXPECT_EQ(reader->getLength(), 3);
    auto const writer = open("a");
    writer->seek(3);
    writer->write("def", 3, nullptr);
    EXPECT_EQ(reader->getLength(), 6);
}

TEST_F(NativeFileSystem, ABufferedReaderSeesTheLengthOfAFileThatGrewBeforeItsLock) {
    open("a")->write("abc", 3, nullptr);
    auto const reader =
        yx::makeObject<yx::COptimizingIOStream>(open("a", yx::IIOStream::ReadOnly).get());
    open("a")->write("abcdef", 6, nullptr);
    auto const lock = reader->lockRange(0, 1, yx::IStreamBase::Shared);
    EXPECT_EQ(reader->getLength(), 6);
}

TEST_F(NativeFileSystem, ABufferedReaderOfAStreamInUseAsksForTheLength) {
    open("a")->write("abc", 3, nullptr);
    auto const stream = open("a", yx::IIOStream::ReadOnly);
    char byte = 0;
    stream->read(&byte, 1);
    open("a")->write("abcdef", 6, nullptr);
    EXPECT_EQ(yx::makeObject<yx::COptimizingIOStream>(stream.get())->getLength(), 6);
}

TEST_F(NativeFileSystem, FollowsLinks) {
    fs::create_directory(path("there"));
    fs::create_symlink(path("there") / "target", path("link"));
    EXPECT_FALSE(files->fileExists(directory.uri("link")));
    auto const stream = open("link");
    writeAt(*stream, 0, fromText("abc"));
    stream->flush();
    EXPECT_TRUE(files->fileExists(directory.uri("link")));
    EXPECT_TRUE(sameBytes(fromText("abc"), readFile(*files, directory.uri("there/target"))));
}

TEST_F(NativeFileSystem, ARelativeReferenceStartsAtTheCurrentDirectory) {
    fs::path const previous = fs::current_path();
    fs::current_path(directory.path());
    auto const stream = open(CURI("a%20b"));
    writeAt(*stream, 0, fromText("abc"));
    fs::current_path(previous);
    faults::Scope const calls;
    stream->flush();
    EXPECT_EQ(calls.count(Call::Fsync), 1);
    EXPECT_TRUE(sameBytes(fromText("abc"), readFile(*files, directory.uri("a b"))));
}

TEST_F(NativeFileSystem, AFullDeviceIsNoSpace) {
    CURI const full("file:///dev/full");
    auto const stream = open(full);
    stream->seek(512);
    EXPECT_TRUE(
        throwsIOError(CIOError::NoSpace, "Cannot write to the file: No space left on device",
                      {{"uri", "file:///dev/full"}, {"position", "512"}, {"bytesToWrite", "3"}},
                      [&] { stream->write("abc", 3, nullptr); }));
    EXPECT_EQ(stream->getPosition(), 512);
    stream->flush();
}

TEST_F(NativeFileSystem, ALengthThatTheFileSystemCannotHoldIsNoSpace) {
    auto const stream = open("a");
    constexpr __int64 kLengthBytes = 9223372036854775807;
    if (::truncate(toNativePath(directory.uri("a")).toStdString().c_str(), kLengthBytes) == 0)
        GTEST_SKIP() << "this file system can hold any length";
    EXPECT_TRUE(throwsIOError(CIOError::NoSpace,
                              "Cannot set the length of the file: File too large",
                              {{"uri", text("a")}, {"length", "9223372036854775807"}},
                              [&] { stream->setLength(kLengthBytes); }));
    EXPECT_EQ(stream->getLength(), 0);
}

TEST_F(NativeFileSystem, ABlockDeviceIsAsLongAsItsSize) {
    writeAt(*open("device"), 0, pattern(4096, 1));
    faults::Scope calls;
    calls.pretendBlockDevices();
    auto const stream = open("device");
    EXPECT_EQ(stream->getLength(), 4096);
    EXPECT_EQ(readAt(*stream, 4000, 1024).size(), 96U);
    EXPECT_TRUE(stream->isEndOfStream());
    writeAt(*stream, 0, fromText("x"));
    stream->flush();
    EXPECT_EQ(calls.count(Call::Fdatasync), 1);
    EXPECT_EQ(calls.count(Call::Fsync), 0);
}

// Locks and processes.

TEST_F(NativeFileSystem, RangeLocksKeepOtherProcessesOutAndEndWithTheirProcess) {
    auto const stream = open("a");
    test_support::ChildProcess child([&](test_support::Line const& line) {
        auto const own = open("a");
        auto const lock = own->lockRange(0, 10, IStreamBase::Exclusive);
        line.send('l');
        line.receive();
        return 0;
    });
    ASSERT_EQ(child.line().receive(), 'l');
    EXPECT_TRUE(throwsIOError(CIOError::AccessDenied, "The range is locked by another holder.",
                              {{"uri", text("a")}, {"position", "9"}, {"length", "1"}},
                              [&] { stream->lockRange(9, 1, IStreamBase::Shared); }));
    child.kill();
    EXPECT_TRUE(stream->lockRange(9, 1, IStreamBase::Exclusive));
}

TEST_F(NativeFileSystem, AChildThatSharesTheOpenFileDoesNotKeepItsLock) {
    auto const stream = open("a");
    auto lock = stream->lockRange(0, 1, IStreamBase::Exclusive);
    test_support::ChildProcess const child([](test_support::Line const& line) {
        line.send('r');
        line.receive();
        return 0;
    });
    ASSERT_EQ(child.line().receive(), 'r');
    lock.reset();
    EXPECT_TRUE(open("a")->lockRange(0, 1, IStreamBase::Exclusive));
}

} // namespace

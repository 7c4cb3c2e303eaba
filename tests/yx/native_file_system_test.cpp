#include "yx/native_file_system.h"

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "tests/support/bytes.h"
#include "tests/support/child_process.h"
#include "tests/support/expect_error.h"
#include "tests/support/ignored_exception_capture.h"
#include "tests/support/temp_directory.h"
#include "tests/support/unprivileged_scope.h"
#include "tests/yx/system_call_faults.h"
#include "yx/gather_out_stream.h"

namespace {

namespace fs = std::filesystem;
namespace faults = system_call_faults;

using faults::Call;
using test_support::Bytes;
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

class NativeFileSystem : public testing::Test {
protected:
    yx::P<IIOStream> open(CURI const& uri, IIOStream::Access access = IIOStream::ReadWrite) {
        unsigned int reserved = 0;
        return files->openFile(uri, access, &reserved);
    }

    yx::P<IIOStream> open(std::string const& name,
                          IIOStream::Access access = IIOStream::ReadWrite) {
        return open(directory.uri(name), access);
    }

    std::string text(std::string const& name) const {
        return directory.uri(name).toString(true).toStdString();
    }

    fs::path path(std::string const& name) const { return directory.path() / name; }

    test_support::TempDirectory directory;
    yx::P<yx::CNativeFileSystem> files = yx::makeObject<yx::CNativeFileSystem>();
};

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
    EXPECT_TRUE(throwsIOError(CIOError::NoSpace,
                              "Cannot set the length of the file: File too large",
                              {{"uri", text("a")}, {"length", "9223372036854775807"}},
                              [&] { stream->setLength(9223372036854775807); }));
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

// Transfers that the system cuts or interrupts.

TEST_F(NativeFileSystem, ShortTransfersAreFinished) {
    Bytes const content = pattern(10000, 1);
    auto const stream = open("a");
    faults::Scope calls;
    calls.limit(Call::Pwritev, 777);
    calls.limit(Call::Pread, 999);
    writeAt(*stream, 5, content);
    EXPECT_EQ(calls.count(Call::Pwritev), 13);
    EXPECT_TRUE(sameBytes(content, readAt(*stream, 5, 10000)));
    EXPECT_EQ(calls.count(Call::Pread), 11);
}

TEST_F(NativeFileSystem, ShortGatheringWritesAreFinishedWhereverTheyAreCut) {
    Bytes const content = pattern(300, 2);
    yx::IGatherOutStream::Piece const pieces[] = {{content.data(), 1},
                                                  {content.data() + 1, 99},
                                                  {content.data() + 100, 150},
                                                  {content.data() + 250, 50}};
    for (std::size_t const limit : {1U, 2U, 50U, 99U, 100U, 101U, 250U, 299U}) {
        auto const stream = open("a" + std::to_string(limit));
        faults::Scope calls;
        calls.limit(Call::Pwritev, limit);
        dynamic_cast<yx::IGatherOutStream&>(*stream).writePieces(7, pieces, 4);
        EXPECT_TRUE(sameBytes(content, readAt(*stream, 7, 1000))) << limit;
    }
}

TEST_F(NativeFileSystem, ManyPiecesTakeFewCalls) {
    Bytes const content = pattern(1000, 3);
    std::vector<yx::IGatherOutStream::Piece> pieces;
    for (std::size_t i = 0; i < content.size(); ++i)
        pieces.push_back({content.data() + i, 1});
    auto const stream = open("a");
    faults::Scope const calls;
    dynamic_cast<yx::IGatherOutStream&>(*stream).writePieces(0, pieces.data(), 1000);
    EXPECT_EQ(calls.count(Call::Pwritev), 16);
    EXPECT_TRUE(sameBytes(content, readAt(*stream, 0, 2000)));
}

TEST_F(NativeFileSystem, InterruptedCallsAreRestarted) {
    auto const stream = open("a");
    faults::Scope calls;
    for (Call const call :
         {Call::Pread, Call::Pwritev, Call::Ftruncate, Call::Fdatasync, Call::Fsync, Call::Fcntl})
        calls.fail(call, EINTR, 2);
    stream->write("abcdef", 6, nullptr);
    stream->setLength(3);
    EXPECT_TRUE(sameBytes(fromText("abc"), readAt(*stream, 0, 9)));
    stream->flush();
    auto const lock = stream->lockRange(0, 1, IStreamBase::Exclusive);
    EXPECT_EQ(calls.count(Call::Pwritev), 3);
    EXPECT_EQ(calls.count(Call::Ftruncate), 3);
    EXPECT_EQ(calls.count(Call::Fdatasync), 3);
    EXPECT_EQ(calls.count(Call::Fsync), 3);
    EXPECT_EQ(calls.count(Call::Fcntl), 3);
}

TEST_F(NativeFileSystem, AnInterruptedCloseHasClosed) {
    auto const stream = open("a");
    faults::Scope calls;
    calls.fail(Call::Close, EINTR);
    stream->close();
    EXPECT_EQ(calls.count(Call::Close), 1);
}

TEST_F(NativeFileSystem, ATransferThatStandsStillFails) {
    auto const stream = open("a");
    faults::Scope calls;
    calls.limit(Call::Pwritev, 0);
    EXPECT_TRUE(throwsIOError(CIOError::IOFailure, "Cannot write to the file: Input/output error",
                              {{"uri", text("a")}, {"position", "0"}, {"bytesToWrite", "3"}},
                              [&] { stream->write("abc", 3, nullptr); }));
}

struct FailureCase {
    Call call;
    int errorNumber;
    CIOError::Code code;
    char const* message;
    Props props; // behind "uri"
    void (*action)(IIOStream&);
};

TEST_F(NativeFileSystem, FailuresOfTheSystemCarryItsWords) {
    auto const write = [](IIOStream& stream) { stream.write("abc", 3, nullptr); };
    auto const read = [](IIOStream& stream) {
        char target[9];
        stream.readLax(target, 9);
    };
    auto const setLength = [](IIOStream& stream) { stream.setLength(7); };
    auto const lock = [](IIOStream& stream) { stream.lockRange(3, 4, IStreamBase::Shared); };
    Props const written{{"position", "2"}, {"bytesToWrite", "3"}};
    Props const wanted{{"position", "2"}, {"bytesToRead", "9"}};
    Props const range{{"position", "3"}, {"length", "4"}};
    std::vector<FailureCase> const cases{
        {Call::Pwritev, EIO, CIOError::IOFailure, "Cannot write to the file: Input/output error",
         written, write},
        {Call::Pwritev, ENOSPC, CIOError::NoSpace,
         "Cannot write to the file: No space left on device", written, write},
        {Call::Pwritev, EDQUOT, CIOError::NoSpace, "Cannot write to the file: Disk quota exceeded",
         written, write},
        {Call::Pwritev, EFBIG, CIOError::NoSpace, "Cannot write to the file: File too large",
         written, write},
        {Call::Pwritev, EROFS, CIOError::AccessDenied,
         "Cannot write to the file: Read-only file system", written, write},
        {Call::Pwritev, EPERM, CIOError::AccessDenied,
         "Cannot write to the file: Operation not permitted", written, write},
        {Call::Pread, EIO, CIOError::IOFailure, "Cannot read from the file: Input/output error",
         wanted, read},
        {Call::Ftruncate,
         ENOSPC,
         CIOError::NoSpace,
         "Cannot set the length of the file: No space left on device",
         {{"length", "7"}},
         setLength},
        {Call::Ftruncate,
         EPERM,
         CIOError::AccessDenied,
         "Cannot set the length of the file: Operation not permitted",
         {{"length", "7"}},
         setLength},
        {Call::Fcntl, ENOLCK, CIOError::IOFailure, "Cannot lock the file: No locks available",
         range, lock},
        {Call::Fcntl, EINVAL, CIOError::NotSupported,
         "Cannot lock the file: Operation not supported", range, lock},
        {Call::Fcntl, EOPNOTSUPP, CIOError::NotSupported,
         "Cannot lock the file: Operation not supported", range, lock},
        {Call::Fcntl, ENOSYS, CIOError::NotSupported,
         "Cannot lock the file: Function not implemented", range, lock},
        {Call::Fcntl, EACCES, CIOError::AccessDenied, "The range is locked by another holder.",
         range, lock},
        {Call::Close,
         EIO,
         CIOError::IOFailure,
         "Cannot close the file: Input/output error",
         {},
         [](IIOStream& stream) { stream.close(); }},
        {Call::Close,
         ENOSPC,
         CIOError::NoSpace,
         "Cannot close the file: No space left on device",
         {},
         [](IIOStream& stream) { stream.close(); }},
    };
    int number = 0;
    for (FailureCase const& failure : cases) {
        std::string const name = std::to_string(number++);
        auto const stream = open(name);
        stream->seek(2);
        Props props{{"uri", text(name)}};
        props.insert(props.end(), failure.props.begin(), failure.props.end());
        faults::Scope calls;
        calls.fail(failure.call, failure.errorNumber);
        EXPECT_TRUE(
            throwsIOError(failure.code, failure.message, props, [&] { failure.action(*stream); }));
        if (failure.call == Call::Close)
            EXPECT_TRUE(throwsIOError(CIOError::Closed, "The stream is closed.", props,
                                      [&] { stream->getPosition(); }));
        else
            EXPECT_EQ(stream->getPosition(), 2);
    }
}

TEST_F(NativeFileSystem, AFailureInTheMiddleOfATransferLeavesThePosition) {
    Bytes const content = pattern(1000, 5);
    auto const stream = open("a");
    stream->seek(3);
    faults::Scope calls;
    calls.limit(Call::Pwritev, 100);
    calls.fail(Call::Pwritev, ENOSPC, 1, 4);
    EXPECT_TRUE(throwsIOError(CIOError::NoSpace,
                              "Cannot write to the file: No space left on device",
                              {{"uri", text("a")}, {"position", "3"}, {"bytesToWrite", "1000"}},
                              [&] { stream->write(content.data(), 1000, nullptr); }));
    EXPECT_EQ(stream->getPosition(), 3);
    EXPECT_EQ(stream->getLength(), 403);
    stream->write(content.data(), 1000, nullptr);

    stream->seek(3);
    calls.limit(Call::Pread, 100);
    calls.fail(Call::Pread, EIO, 1, 9);
    Bytes target(1000);
    EXPECT_TRUE(throwsIOError(CIOError::IOFailure, "Cannot read from the file: Input/output error",
                              {{"uri", text("a")}, {"position", "3"}, {"bytesToRead", "1000"}},
                              [&] { stream->read(target.data(), 1000); }));
    EXPECT_EQ(stream->getPosition(), 3);
    stream->read(target.data(), 1000);
    EXPECT_TRUE(sameBytes(content, target));
}

TEST_F(NativeFileSystem, ADestructorReportsAFailedClose) {
    test_support::IgnoredExceptionCapture const ignored;
    auto stream = open("a");
    faults::Scope calls;
    calls.fail(Call::Close, EIO);
    stream.reset();
    EXPECT_THAT(ignored.entries(),
                testing::ElementsAre(test_support::IgnoredExceptionCapture::Entry{
                    "yx::CNativeFileStream", "Cannot close the file: Input/output error", true}));
}

// What flush makes durable.

TEST_F(NativeFileSystem, FlushSyncsOnceForAllThatWasWritten) {
    auto const stream = open("a");
    faults::Scope const calls;
    stream->write("abc", 3, nullptr);
    stream->write("abc", 3, nullptr);
    stream->flush();
    EXPECT_EQ(calls.count(Call::Fdatasync), 1);
    stream->flush();
    readAt(*stream, 0, 3);
    stream->flush();
    EXPECT_EQ(calls.count(Call::Fdatasync), 1);
    stream->setLength(1);
    stream->flush();
    EXPECT_EQ(calls.count(Call::Fdatasync), 2);
    yx::IGatherOutStream::Piece const piece{"x", 1};
    dynamic_cast<yx::IGatherOutStream&>(*stream).writePieces(0, &piece, 1);
    stream->flush();
    EXPECT_EQ(calls.count(Call::Fdatasync), 3);
    stream->close();
    EXPECT_EQ(calls.count(Call::Fdatasync), 3);
}

TEST_F(NativeFileSystem, FlushAlsoSyncsAfterAWriteThatFailed) {
    writeAt(*open("a"), 0, fromText("abc"));
    auto const stream = open("a");
    faults::Scope calls;
    calls.fail(Call::Pwritev, EIO);
    EXPECT_THROW(stream->write("abc", 3, nullptr), CIOError);
    stream->flush();
    EXPECT_EQ(calls.count(Call::Fdatasync), 1);
}

TEST_F(NativeFileSystem, TheFirstFlushSyncsTheFolderEntry) {
    auto const stream = open("a");
    faults::Scope const calls;
    stream->flush();
    EXPECT_EQ(calls.count(Call::Fdatasync), 1);
    EXPECT_EQ(calls.count(Call::Fsync), 1);
    stream->write("abc", 3, nullptr);
    stream->flush();
    EXPECT_EQ(calls.count(Call::Fdatasync), 2);
    EXPECT_EQ(calls.count(Call::Fsync), 1);
}

TEST_F(NativeFileSystem, TheFolderEntryOfAFileThatNobodyFlushedIsSyncedByALaterStream) {
    writeAt(*open("a"), 0, fromText("abc"));
    auto const stream = open("a");
    faults::Scope const calls;
    stream->flush();
    EXPECT_EQ(calls.count(Call::Fdatasync), 0);
    EXPECT_EQ(calls.count(Call::Fsync), 0);
    stream->write("x", 1, nullptr);
    stream->flush();
    EXPECT_EQ(calls.count(Call::Fdatasync), 1);
    EXPECT_EQ(calls.count(Call::Fsync), 1);
}

TEST_F(NativeFileSystem, HostsThatSyncByThemselvesGetNoSync) {
    files = yx::makeObject<yx::CNativeFileSystem>(yx::NativeFlush::ToSystem);
    auto const stream = open("a");
    faults::Scope const calls;
    stream->write("abc", 3, nullptr);
    stream->flush();
    stream->close();
    EXPECT_EQ(calls.count(Call::Fdatasync) + calls.count(Call::Fsync) + calls.count(Call::Syncfs),
              0);
}

TEST_F(NativeFileSystem, AFailedSyncIsFinalForTheStream) {
    auto const stream = open("a");
    faults::Scope calls;
    stream->write("abc", 3, nullptr);
    calls.fail(Call::Fdatasync, EIO);
    auto const flush = [&] { stream->flush(); };
    std::string const message = "Cannot flush the file: Input/output error";
    EXPECT_TRUE(throwsIOError(CIOError::IOFailure, message, {{"uri", text("a")}}, flush));
    EXPECT_TRUE(throwsIOError(CIOError::IOFailure, message, {{"uri", text("a")}}, flush));
    stream->write("abc", 3, nullptr);
    EXPECT_TRUE(throwsIOError(CIOError::IOFailure, message, {{"uri", text("a")}}, flush));
    EXPECT_TRUE(sameBytes(fromText("abcabc"), readAt(*stream, 0, 9)));

    auto const reopened = open("a");
    writeAt(*reopened, 0, fromText("abcabc"));
    reopened->flush();
}

TEST_F(NativeFileSystem, AFailedSyncOfTheFolderIsFinalForTheStream) {
    auto const stream = open("a");
    faults::Scope calls;
    calls.fail(Call::Fsync, EIO);
    for (int i = 0; i < 2; ++i) {
        EXPECT_TRUE(throwsIOError(CIOError::IOFailure, "Cannot flush the file: Input/output error",
                                  {{"uri", text("a")}}, [&] { stream->flush(); }));
    }
    EXPECT_EQ(calls.count(Call::Fsync), 1);
}

TEST_F(NativeFileSystem, AFileSystemThatSyncsNoFoldersIsTakenAsItIs) {
    for (int const errorNumber : {EINVAL, ENOTSUP}) {
        auto const stream = open("a" + std::to_string(errorNumber));
        faults::Scope calls;
        calls.fail(Call::Fsync, errorNumber);
        stream->flush();
        EXPECT_EQ(calls.count(Call::Fsync), 1);
    }
}

TEST_F(NativeFileSystem, AFolderThatCannotBeReadIsSyncedWithItsWholeFileSystem) {
    fs::permissions(directory.path(), fs::perms(0733));
    test_support::UnprivilegedScope const unprivileged;
    auto const stream = open("a");
    auto const other = open("b");
    faults::Scope calls;
    calls.fail(Call::Syncfs, 0);
    stream->flush();
    EXPECT_EQ(calls.count(Call::Syncfs), 1);
    EXPECT_EQ(calls.count(Call::Fsync), 0);
    calls.fail(Call::Syncfs, EIO);
    for (int i = 0; i < 2; ++i) {
        EXPECT_TRUE(throwsIOError(CIOError::IOFailure, "Cannot flush the file: Input/output error",
                                  {{"uri", text("b")}}, [&] { other->flush(); }));
    }
    EXPECT_EQ(calls.count(Call::Syncfs), 2);
}

TEST_F(NativeFileSystem, AFileThatLostItsNameFlushesItsContent) {
    auto const stream = open("a");
    stream->write("abc", 3, nullptr);
    files->deleteFile(directory.uri("a"), false);
    faults::Scope const calls;
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

// Calls of the operating system that fall short, are interrupted or fail.

#include <cerrno>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/bytes.h"
#include "tests/support/expect_error.h"
#include "tests/support/ignored_exception_capture.h"
#include "tests/yx/native_file_system_fixture.h"
#include "tests/yx/system_call_faults.h"
#include "yx/gather_out_stream.h"

namespace native_file_transfer_test {

namespace {

namespace faults = system_call_faults;

using faults::Call;
using test_support::Bytes;
using test_support::fromText;
using test_support::pattern;
using test_support::Props;
using test_support::readAt;
using test_support::sameBytes;
using test_support::throwsIOError;
using test_support::writeAt;
using yx::CIOError;
using yx::IIOStream;
using yx::IStreamBase;
using NativeFileTransfer = NativeFileSystemFixture;

TEST_F(NativeFileTransfer, ShortTransfersAreFinished) {
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

TEST_F(NativeFileTransfer, ShortGatheringWritesAreFinishedWhereverTheyAreCut) {
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

TEST_F(NativeFileTransfer, ManyPiecesTakeFewCalls) {
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

TEST_F(NativeFileTransfer, InterruptedCallsAreRestarted) {
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

TEST_F(NativeFileTransfer, AnInterruptedCloseHasClosed) {
    auto const stream = open("a");
    faults::Scope calls;
    calls.fail(Call::Close, EINTR);
    stream->close();
    EXPECT_EQ(calls.count(Call::Close), 1);
}

TEST_F(NativeFileTransfer, ATransferThatStandsStillFails) {
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

TEST_F(NativeFileTransfer, FailuresOfTheSystemCarryItsWords) {
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

TEST_F(NativeFileTransfer, AFailureInTheMiddleOfATransferLeavesThePosition) {
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

TEST_F(NativeFileTransfer, ADestructorReportsAFailedClose) {
    test_support::IgnoredExceptionCapture const ignored;
    auto stream = open("a");
    faults::Scope calls;
    calls.fail(Call::Close, EIO);
    stream.reset();
    EXPECT_THAT(ignored.entries(),
                testing::ElementsAre(test_support::IgnoredExceptionCapture::Entry{
                    "yx::CNativeFileStream", "Cannot close the file: Input/output error", true}));
}

} // namespace

} // namespace native_file_transfer_test

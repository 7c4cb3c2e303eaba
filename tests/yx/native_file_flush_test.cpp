// What `flush` makes durable.

#include <cerrno>
#include <filesystem>
#include <string>

#include <gtest/gtest.h>

#include "tests/support/bytes.h"
#include "tests/support/expect_error.h"
#include "tests/support/unprivileged_scope.h"
#include "tests/yx/native_file_system_fixture.h"
#include "tests/yx/system_call_faults.h"
#include "yx/gather_out_stream.h"

namespace {

namespace fs = std::filesystem;
namespace faults = system_call_faults;

using faults::Call;
using test_support::fromText;
using test_support::readAt;
using test_support::sameBytes;
using test_support::throwsIOError;
using test_support::writeAt;
using yx::CIOError;
using NativeFileFlush = NativeFileSystemFixture;

TEST_F(NativeFileFlush, FlushSyncsOnceForAllThatWasWritten) {
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

TEST_F(NativeFileFlush, FlushAlsoSyncsAfterAWriteThatFailed) {
    writeAt(*open("a"), 0, fromText("abc"));
    auto const stream = open("a");
    faults::Scope calls;
    calls.fail(Call::Pwritev, EIO);
    EXPECT_THROW(stream->write("abc", 3, nullptr), CIOError);
    stream->flush();
    EXPECT_EQ(calls.count(Call::Fdatasync), 1);
}

TEST_F(NativeFileFlush, TheFirstFlushSyncsTheFolderEntry) {
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

TEST_F(NativeFileFlush, TheFolderEntryOfAFileThatNobodyFlushedIsSyncedByALaterStream) {
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

TEST_F(NativeFileFlush, HostsThatSyncByThemselvesGetNoSync) {
    files = yx::makeObject<yx::CNativeFileSystem>(yx::NativeFlush::ToSystem);
    auto const stream = open("a");
    faults::Scope const calls;
    stream->write("abc", 3, nullptr);
    stream->flush();
    stream->close();
    EXPECT_EQ(calls.count(Call::Fdatasync) + calls.count(Call::Fsync) + calls.count(Call::Syncfs),
              0);
}

TEST_F(NativeFileFlush, AFailedSyncIsFinalForTheStream) {
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

TEST_F(NativeFileFlush, AFailedSyncOfTheFolderIsFinalForTheStream) {
    auto const stream = open("a");
    faults::Scope calls;
    calls.fail(Call::Fsync, EIO);
    for (int i = 0; i < 2; ++i) {
        EXPECT_TRUE(throwsIOError(CIOError::IOFailure, "Cannot flush the file: Input/output error",
                                  {{"uri", text("a")}}, [&] { stream->flush(); }));
    }
    EXPECT_EQ(calls.count(Call::Fsync), 1);
}

TEST_F(NativeFileFlush, AFileSystemThatSyncsNoFoldersIsTakenAsItIs) {
    for (int const errorNumber : {EINVAL, ENOTSUP}) {
        auto const stream = open("a" + std::to_string(errorNumber));
        faults::Scope calls;
        calls.fail(Call::Fsync, errorNumber);
        stream->flush();
        EXPECT_EQ(calls.count(Call::Fsync), 1);
    }
}

TEST_F(NativeFileFlush, AFolderThatCannotBeReadIsSyncedWithItsWholeFileSystem) {
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

TEST_F(NativeFileFlush, AFileThatLostItsNameFlushesItsContent) {
    auto const stream = open("a");
    stream->write("abc", 3, nullptr);
    files->deleteFile(directory.uri("a"), false);
    faults::Scope const calls;
    stream->flush();
    EXPECT_EQ(calls.count(Call::Fdatasync), 1);
    EXPECT_EQ(calls.count(Call::Fsync), 0);
}

} // namespace

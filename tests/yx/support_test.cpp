// The helpers of the tests themselves.

#include <csignal>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "tests/support/bytes.h"
#include "tests/support/child_process.h"
#include "tests/support/expect_error.h"
#include "tests/support/faulty_file_system.h"
#include "tests/support/ignored_exception_capture.h"
#include "tests/support/log_capture.h"
#include "tests/support/recording_file_system.h"
#include "tests/support/temp_directory.h"
#include "tests/support/unprivileged_scope.h"
#include "yx/error.h"
#include "yx/memory_file_system.h"
#include "yx/native_file_system.h"

namespace support_test {

namespace {

namespace fs = std::filesystem;

using test_support::Bytes;
using test_support::comesBefore;
using test_support::concat;
using test_support::Fault;
using test_support::FaultyFileSystem;
using test_support::FileOperation;
using test_support::fromHex;
using test_support::fromText;
using test_support::IgnoredExceptionCapture;
using test_support::LogCapture;
using test_support::RecordingFileSystem;
using test_support::sameBytes;
using test_support::throwsIOError;
using testing::ElementsAre;
using testing::HasSubstr;
using yx::CIOError;
using yx::CURI;
using yx::IIOStream;
using Kind = FileOperation::Kind;

TEST(SupportBytes, ComeFromHexadecimalDigits) {
    EXPECT_EQ(fromHex(" 4B44 4d 56\n00 ff"), (Bytes{0x4B, 0x44, 0x4D, 0x56, 0x00, 0xFF}));
    EXPECT_EQ(fromHex(""), Bytes());
    for (char const* text : {"1", "12 3", "1 2", "zz", "0x12"})
        EXPECT_THROW(fromHex(text), std::invalid_argument) << text;
}

TEST(SupportBytes, PatternsFollowFromTheSeed) {
    EXPECT_EQ(test_support::pattern(1000, 1), test_support::pattern(1000, 1));
    EXPECT_NE(test_support::pattern(1000, 1), test_support::pattern(1000, 2));
    EXPECT_THAT(test_support::pattern(1000, 1), testing::Not(testing::Contains(0)));
    EXPECT_EQ(test_support::textPattern(77, 1).size(), 77U);
    EXPECT_EQ(test_support::textPattern(77, 1), test_support::textPattern(77, 1));
}

TEST(SupportBytes, GoToBuffersAndBack) {
    Bytes const bytes = test_support::pattern(100, 3);
    EXPECT_EQ(test_support::toBytes(test_support::toBuffer(bytes)), bytes);
    EXPECT_EQ(test_support::toBytes(test_support::toBuffer({})), Bytes());
    EXPECT_EQ(test_support::toText(fromText("abc")), "abc");
}

TEST(SupportBytes, AreJoinedAndCut) {
    EXPECT_EQ(concat({fromText("ab"), {}, fromText("c")}), fromText("abc"));
    EXPECT_EQ(test_support::slice(fromText("abc"), 1, 9), fromText("bc"));
    EXPECT_EQ(test_support::slice(fromText("abc"), 4, 1), Bytes());
}

TEST(SupportBytes, HexDumpShowsOffsetsBytesAndText) {
    EXPECT_EQ(test_support::hexDump(fromText("KDMV and the rest\n"), 0x200),
              "00000200  4b 44 4d 56 20 61 6e 64 20 74 68 65 20 72 65 73  KDMV and the res\n"
              "00000210  74 0a                                            t.\n");
}

TEST(SupportBytes, ADifferenceIsShown) {
    EXPECT_TRUE(sameBytes(fromText("abc"), fromText("abc")));
    testing::AssertionResult const result = sameBytes(fromText("abcd"), fromText("abXd"));
    EXPECT_FALSE(result);
    EXPECT_THAT(result.message(), HasSubstr("first difference at 2"));
    EXPECT_THAT(result.message(), HasSubstr("61 62 63 64"));
    EXPECT_THAT(result.message(), HasSubstr("61 62 58 64"));
    EXPECT_THAT(sameBytes(fromText("abc"), fromText("ab")).message(),
                HasSubstr("expected 3 bytes, got 2; first difference at 2"));
}

TEST(SupportTempDirectory, IsThereEmptyAndThenGone) {
    fs::path path;
    {
        test_support::TempDirectory const directory;
        path = directory.path();
        EXPECT_TRUE(fs::is_empty(path));
        EXPECT_EQ(directory.uri("a b").toString(true).toStdString(),
                  "file://" + path.string() + "/a%20b");
        fs::create_directories(path / "closed" / "deep");
        std::ofstream(path / "closed" / "file") << "x";
        fs::permissions(path / "closed", fs::perms(0));
    }
    EXPECT_FALSE(fs::exists(path));
}

TEST(SupportTempDirectory, IsNeverTheSameTwice) {
    test_support::TempDirectory const first;
    test_support::TempDirectory const second;
    EXPECT_NE(first.path(), second.path());
}

TEST(SupportUnprivilegedScope, IsNoAdministrator) {
    uid_t const before = ::geteuid();
    {
        test_support::UnprivilegedScope const scope;
        EXPECT_NE(::geteuid(), 0U);
    }
    EXPECT_EQ(::geteuid(), before);
}

TEST(SupportLogCapture, SeesEntriesAndRestoresTheReceiver) {
    LogCapture outer;
    {
        LogCapture const inner;
        yx::logWarning("one");
        yx::logError(std::runtime_error("words"), "two", "more");
        EXPECT_THAT(inner.entries(),
                    ElementsAre(LogCapture::Entry{yx::LogLevel::Warning, "one", "", ""},
                                LogCapture::Entry{yx::LogLevel::Error, "two", "more", "words"}));
    }
    EXPECT_TRUE(outer.entries().empty());
    yx::logWarning("three");
    EXPECT_EQ(outer.entries().size(), 1U);
    outer.clear();
    EXPECT_TRUE(outer.entries().empty());
}

TEST(SupportIgnoredExceptionCapture, SeesExceptionsAndRestoresTheReceiver) {
    IgnoredExceptionCapture outer;
    std::runtime_error error("words");
    {
        IgnoredExceptionCapture const inner;
        yx::onExceptionInDestructorIgnored("a::B", error, true);
        EXPECT_THAT(inner.entries(),
                    ElementsAre(IgnoredExceptionCapture::Entry{"a::B", "words", true}));
    }
    EXPECT_TRUE(outer.entries().empty());
    yx::onExceptionInDestructorIgnored("a::B", error, false);
    EXPECT_THAT(outer.entries(),
                ElementsAre(IgnoredExceptionCapture::Entry{"a::B", "words", false}));
}

TEST(SupportExpectError, TellsWhatIsDifferent) {
    auto const fail = [] {
        throw CIOError(CIOError::NotFound, "words", yx::CProps().add("uri", "x:/a"), nullptr);
    };
    EXPECT_TRUE(throwsIOError(CIOError::NotFound, "words", {{"uri", "x:/a"}}, fail));
    EXPECT_FALSE(throwsIOError(CIOError::IOFailure, "words", {{"uri", "x:/a"}}, fail));
    EXPECT_FALSE(throwsIOError(CIOError::NotFound, "other", {{"uri", "x:/a"}}, fail));
    EXPECT_FALSE(throwsIOError(CIOError::NotFound, "words", {}, fail));
    EXPECT_FALSE(throwsIOError(CIOError::NotFound, "words", {{"uri", "x:/a"}}, [] {}));
    EXPECT_FALSE(throwsIOError(CIOError::NotFound, "words", {{"uri", "x:/a"}},
                               [] { throw std::runtime_error("words"); }));
}

class SupportFileSystem : public testing::Test {
protected:
    static yx::P<IIOStream> open(yx::IFileSystem& files, char const* uri,
                                 IIOStream::Access access = IIOStream::ReadWrite) {
        unsigned int reserved = 0;
        return files.openFile(CURI(uri), access, &reserved);
    }

    yx::P<yx::CMemoryFileSystem> memory = yx::makeObject<yx::CMemoryFileSystem>();
};

TEST_F(SupportFileSystem, RecordingKeepsEveryOperationInOrder) {
    auto const files = yx::makeObject<RecordingFileSystem>(memory.get());
    files->fileExists(CURI("mem:/a"));
    auto stream = open(*files, "mem:/a");
    stream->write("abcdef", 6, nullptr);
    stream->seek(2);
    char target[2];
    stream->read(target, 2);
    stream->readLax(target, 2);
    stream->readAvailable(target, 1);
    yx::IGatherOutStream::Piece const pieces[] = {{"xy", 2}, {"z", 1}};
    dynamic_cast<yx::IGatherOutStream&>(*stream).writePieces(10, pieces, 2);
    stream->getLength();
    stream->createWriteBarrier(nullptr);
    stream->flush();
    stream->setLength(4);
    stream->lockRange(0, 1, yx::IStreamBase::Shared);
    auto const other = open(*files, "mem:/dir/b", IIOStream::ReadWrite);
    EXPECT_THROW(other->read(target, 1), CIOError);
    stream.reset();
    other->close();
    EXPECT_THROW(open(*files, "mem:/c", IIOStream::ReadOnly), CIOError);
    files->deleteFile(CURI("mem:/a"), false);
    EXPECT_THAT(files->lines(),
                ElementsAre("exists a", "open a rw", "write a 0+6", "seek a 2", "read a 2+2",
                            "read a 4+2", "read a 6+1", "write a 10+3", "get-length a", "barrier a",
                            "flush a", "set-length a 4", "lock a 0+1 shared", "open b rw",
                            "read b 0+1 failed", "close a", "close b", "open c r failed",
                            "delete a"));
    EXPECT_THAT(
        files->lines(test_support::kChanges, "a"),
        ElementsAre("write a 0+6", "write a 10+3", "flush a", "set-length a 4", "delete a"));
    EXPECT_EQ(files->count({Kind::Read}), 4U);
    EXPECT_TRUE(comesBefore(files->lines(), "write a 0+6", "flush a"));
    EXPECT_FALSE(comesBefore(files->lines(), "flush a", "write a 0+6"));
    EXPECT_FALSE(comesBefore(files->lines(), "flush a", "flush b"));
    files->clear();
    EXPECT_TRUE(files->lines().empty());
}

TEST_F(SupportFileSystem, RecordingKeepsContentOnDemand) {
    auto const files =
        yx::makeObject<RecordingFileSystem>(memory.get(), RecordingFileSystem::Content::Keep);
    auto const stream = open(*files, "mem:/a");
    stream->write("abc", 3, nullptr);
    yx::TBuffer<unsigned char> const buffer = test_support::toBuffer(fromText("defg"));
    stream->writeKeepBuffer(yx::TConstBufferSlice<unsigned char>(&buffer, 1, 2), nullptr);
    yx::IGatherOutStream::Piece const pieces[] = {{"xy", 2}, {"z", 1}};
    dynamic_cast<yx::IGatherOutStream&>(*stream).writePieces(10, pieces, 2);
    EXPECT_EQ(files->entries()[1].content, fromText("abc"));
    EXPECT_EQ(files->entries()[2].content, fromText("ef"));
    EXPECT_EQ(files->entries()[3].content, fromText("xyz"));
    EXPECT_TRUE(sameBytes(concat({fromText("abcef"), test_support::zeros(5), fromText("xyz")}),
                          memory->getFile(CURI("mem:/a"))));
}

TEST_F(SupportFileSystem, FaultsHitTheChosenOperationOfTheChosenFile) {
    auto const files = yx::makeObject<FaultyFileSystem>(memory.get());
    auto const a = open(*files, "mem:/a");
    auto const b = open(*files, "mem:/b");
    files->add(
        {.kinds = {Kind::Write, Kind::Flush}, .nth = 3, .code = CIOError::NoSpace, .file = "a"});
    auto const write = [](IIOStream& stream) { stream.write("xy", 2, nullptr); };
    write(*a);
    write(*b);
    a->flush();
    b->flush();
    b->flush();
    EXPECT_EQ(files->hits(), 0);
    EXPECT_TRUE(throwsIOError(CIOError::NoSpace, "Injected failure.", {{"uri", "mem:/a"}},
                              [&] { write(*a); }));
    EXPECT_EQ(a->getPosition(), 2);
    EXPECT_EQ(a->getLength(), 2);
    write(*a);
    EXPECT_EQ(files->hits(), 1);
    EXPECT_EQ(files->count({Kind::Write}), 4);
    EXPECT_EQ(files->count({Kind::Write, Kind::Flush}), 7);
}

TEST_F(SupportFileSystem, StickyFaultsLastUntilTheyAreCleared) {
    auto const files = yx::makeObject<FaultyFileSystem>(memory.get());
    files->add({.kinds = {Kind::Open}, .nth = 2, .sticky = true, .code = CIOError::AccessDenied});
    open(*files, "mem:/a");
    for (int i = 0; i < 3; ++i) {
        EXPECT_TRUE(throwsIOError(CIOError::AccessDenied, "Injected failure.", {{"uri", "mem:/b"}},
                                  [&] { open(*files, "mem:/b"); }));
    }
    EXPECT_FALSE(memory->fileExists(CURI("mem:/b")));
    EXPECT_EQ(files->hits(), 3);
    files->clear();
    EXPECT_EQ(files->hits(), 0);
    open(*files, "mem:/b");
}

TEST_F(SupportFileSystem, ATornWriteLeavesItsFirstHalf) {
    auto const files = yx::makeObject<FaultyFileSystem>(memory.get());
    files->add({.kinds = {Kind::Write}, .sticky = true, .effect = Fault::Effect::Tear});
    auto const stream = open(*files, "mem:/a");
    EXPECT_THROW(stream->write("abcdef", 6, nullptr), CIOError);
    EXPECT_EQ(stream->getPosition(), 0);
    yx::TBuffer<unsigned char> const buffer = test_support::toBuffer(fromText("ghij"));
    stream->seek(3);
    EXPECT_THROW(
        stream->writeKeepBuffer(yx::TConstBufferSlice<unsigned char>(&buffer, 0, 4), nullptr),
        CIOError);
    EXPECT_EQ(stream->getPosition(), 3);
    yx::IGatherOutStream::Piece const pieces[] = {{"k", 1}, {"lm", 2}, {"n", 1}};
    EXPECT_THROW(dynamic_cast<yx::IGatherOutStream&>(*stream).writePieces(5, pieces, 3), CIOError);
    EXPECT_TRUE(sameBytes(fromText("abcghkl"), memory->getFile(CURI("mem:/a"))));
}

TEST_F(SupportFileSystem, ALyingOperationHappens) {
    auto const files = yx::makeObject<FaultyFileSystem>(memory.get());
    files->add(
        {.kinds = {Kind::Write, Kind::Delete}, .sticky = true, .effect = Fault::Effect::Lie});
    auto const stream = open(*files, "mem:/a");
    EXPECT_THROW(stream->write("abc", 3, nullptr), CIOError);
    EXPECT_EQ(stream->getPosition(), 0);
    EXPECT_TRUE(sameBytes(fromText("abc"), memory->getFile(CURI("mem:/a"))));
    EXPECT_THROW(files->deleteFile(CURI("mem:/a"), false), CIOError);
    EXPECT_FALSE(memory->fileExists(CURI("mem:/a")));
}

TEST_F(SupportFileSystem, AFileCanEndEarly) {
    memory->putFile(CURI("mem:/a"), test_support::toBuffer(fromText("abcdef")));
    auto const files = yx::makeObject<FaultyFileSystem>(memory.get());
    files->add({.kinds = {Kind::Read}, .nth = 2, .effect = Fault::Effect::EndEarly});
    files->add({.kinds = {Kind::Read}, .nth = 3, .effect = Fault::Effect::EndEarly});
    auto const stream = open(*files, "mem:/a");
    char target[9] = {};
    stream->read(target, 1);
    EXPECT_TRUE(throwsIOError(CIOError::UnexpectedEnd, "Unexpected end of the stream.",
                              {{"uri", "mem:/a"}, {"position", "1"}, {"bytesToRead", "4"}},
                              [&] { stream->read(target, 4); }));
    EXPECT_EQ(stream->getPosition(), 1);
    EXPECT_EQ(stream->readLax(target, 4), 2);
    EXPECT_EQ(stream->getPosition(), 3);
    EXPECT_EQ(stream->readLax(target, 4), 3);
}

TEST_F(SupportFileSystem, WrappersCanBeStackedAndGatherAsTheStreamBelow) {
    auto const recorder = yx::makeObject<RecordingFileSystem>(memory.get());
    auto const files = yx::makeObject<FaultyFileSystem>(recorder.get());
    auto const stream = open(*files, "mem:/a");
    EXPECT_NE(dynamic_cast<yx::IGatherOutStream*>(stream.get()), nullptr);
    stream->write("abc", 3, nullptr);
    EXPECT_THAT(recorder->lines(), ElementsAre("open a rw", "write a 0+3"));
}

TEST(SupportChildProcess, TalksWithItsTest) {
    test_support::ChildProcess child([](test_support::Line const& line) {
        line.send(static_cast<char>(line.receive() + 1));
        return 7;
    });
    child.line().send('a');
    EXPECT_EQ(child.line().receive(), 'b');
    EXPECT_EQ(child.line().receive(), '\0');
    EXPECT_EQ(child.wait(), 7);
}

TEST(SupportChildProcess, CanBeKilled) {
    test_support::ChildProcess child([](test_support::Line const& line) {
        line.send('r');
        line.receive();
        return 0;
    });
    ASSERT_EQ(child.line().receive(), 'r');
    child.kill();
    EXPECT_EQ(child.line().receive(), '\0');

    test_support::ChildProcess dying([](test_support::Line const&) { return ::raise(SIGKILL); });
    EXPECT_EQ(dying.wait(), -1);
}

TEST(SupportChildProcess, ReportsExceptions) {
    testing::internal::CaptureStderr();
    test_support::ChildProcess child(
        [](test_support::Line const&) -> int { throw std::runtime_error("words"); });
    EXPECT_EQ(child.wait(), 99);
    EXPECT_THAT(testing::internal::GetCapturedStderr(), HasSubstr("child process: words"));
}

} // namespace

} // namespace support_test

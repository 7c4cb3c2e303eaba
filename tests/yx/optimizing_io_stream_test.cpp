#include "yx/optimizing_io_stream.h"

#include <functional>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/expect_error.h"
#include "tests/support/ignored_exception_capture.h"
#include "tests/support/scripted_stream.h"
#include "tests/yx/optimizing_io_stream_fixture.h"
#include "yx/memory.h"

namespace optimizing_io_stream_test {

namespace {

using namespace optimizing_io_stream_fixture;

using test_support::IgnoredExceptionCapture;
using test_support::ScriptedGatherStream;
using test_support::throwsInvalidArg;
using test_support::throwsIOError;
using testing::ElementsAre;
using testing::IsEmpty;
using OptimizingIOStream = OptimizingIOStreamFixture;

// Gathering.

TEST_F(OptimizingIOStream, SmallWriteIsHeldBackUntilFlush) {
    writeText(0, "hello");
    EXPECT_EQ(stream->getPosition(), 5);
    EXPECT_THAT(inner->operations(), IsEmpty());
    stream->flush();
    EXPECT_THAT(inner->operations(), ElementsAre(writeOf(0, 5), kFlush));
    EXPECT_EQ(contentText(), "hello");
}

TEST_F(OptimizingIOStream, FlushWithNothingHeldBackStillFlushesTheStream) {
    stream->flush();
    stream->flush();
    EXPECT_THAT(inner->operations(), ElementsAre(kFlush, kFlush));
}

TEST_F(OptimizingIOStream, SequentialSmallWritesArriveInPiecesOf1MiB) {
    for (int i = 0; i < 4096; ++i)
        stream->write(filled(512, static_cast<unsigned char>(i)).data(), 512, nullptr);
    stream->write("end", 3, nullptr);
    EXPECT_THAT(inner->operations(), ElementsAre(writeOf(0, 1048576), writeOf(1048576, 1048576)));
    stream->flush();
    EXPECT_THAT(inner->operations(), ElementsAre(writeOf(0, 1048576), writeOf(1048576, 1048576),
                                                 writeOf(2097152, 3), kFlush));
    for (int i = 0; i < 4096; ++i)
        ASSERT_EQ(inner->content()[static_cast<std::size_t>(i * 512)], i % 256) << i;
}

TEST_F(OptimizingIOStream, TablesRewrittenAtTwoPlacesEachArriveInTwoPieces) {
    inner->content() = filled(2 * kMiB, 1);
    for (int i = 0; i < 20; ++i) {
        writeAt(10240 + i * 2048, filled(2048, 2));
        writeAt(1000 * kKiB + i * 2048, filled(2048, 3));
    }
    stream->flush();
    EXPECT_THAT(inner->operations(),
                ElementsAre(writeOf(10240, 40960), writeOf(1024000, 40960), kFlush));
}

TEST_F(OptimizingIOStream, BytesThatMakeTheFileLongerArriveBeforeTheTablesThatPointToThem) {
    inner->content() = filled(4096, 1);
    writeAt(0, filled(512, 2));
    writeAt(4096, filled(700, 3));
    writeAt(512, filled(512, 4));
    stream->flush();
    EXPECT_THAT(inner->operations(), ElementsAre(writeOf(4096, 700), writeOf(0, 1024), kFlush));
}

TEST_F(OptimizingIOStream, OtherwisePiecesArriveInTheOrderInWhichTheyBegan) {
    inner->content() = filled(64 * kKiB, 1);
    for (int position : {30000, 10000, 20000})
        writeAt(position, filled(10, 2));
    stream->flush();
    EXPECT_THAT(inner->operations(),
                ElementsAre(writeOf(30000, 10), writeOf(10000, 10), writeOf(20000, 10), kFlush));
}

TEST_F(OptimizingIOStream, NinthSeparatePieceMakesTheEightBeforeItArrive) {
    inner->content() = filled(64 * kKiB, 1);
    for (int i = 0; i < 8; ++i)
        writeAt(i * 1000, filled(10, 2));
    EXPECT_THAT(inner->operations(), IsEmpty());
    writeAt(8000, filled(10, 2));
    EXPECT_EQ(inner->operations().size(), 8U);
    stream->flush();
    EXPECT_EQ(inner->operations().back(), kFlush);
    EXPECT_EQ(inner->operationsOf(Kind::Write).back(), writeOf(8000, 10));
}

TEST_F(OptimizingIOStream, OverlappingWritesLeaveTheLastBytes) {
    struct Case {
        char const* name;
        std::vector<std::pair<int, std::string>> writes;
        char const* result;
    };
    std::vector<Case> const cases = {
        {"same place", {{2, "aaaa"}, {2, "bbbb"}}, "..bbbb......"},
        {"inside", {{2, "aaaaaa"}, {4, "bb"}}, "..aabbaa...."},
        {"over the end", {{2, "aaaa"}, {4, "bbbb"}}, "..aabbbb...."},
        {"over the beginning", {{4, "aaaa"}, {2, "bbbb"}}, "..bbbbaa...."},
        {"around", {{4, "aa"}, {2, "bbbbbb"}}, "..bbbbbb...."},
        {"just before", {{4, "aa"}, {2, "bb"}}, "..bbaa......"},
        {"between two", {{0, "aa"}, {4, "cc"}, {2, "bb"}}, "aabbcc......"},
        {"over two", {{0, "aaaa"}, {6, "cccc"}, {2, "bbbbbb"}}, "aabbbbbbcc.."},
        {"where two meet", {{4, "cc"}, {2, "aa"}, {4, "dddd"}}, "..aadddd...."},
        {"over the whole second", {{0, "aa"}, {4, "cc"}, {2, "bbbbbb"}}, "aabbbbbb...."},
    };
    for (Case const& c : cases) {
        SCOPED_TRACE(c.name);
        Stack<ScriptedStream> stack;
        stack.inner->content() = filled(12, '.');
        for (auto const& [position, text] : c.writes)
            stack.writeAt(position, Bytes(text.begin(), text.end()));
        Bytes const expected(c.result, c.result + 12);
        EXPECT_EQ(stack.readAt(0, 12), expected);
        stack.stream->flush();
        EXPECT_EQ(stack.contentText(), c.result);
        EXPECT_EQ(stack.readAt(0, 12), expected);
    }
}

TEST_F(OptimizingIOStream, WriteWhereTwoPiecesMeetGoesOverTheSecond) {
    writeText(2, "a");
    writeText(4, "cc");
    writeText(3, "a");
    writeText(4, "dddd");
    EXPECT_THAT(inner->operations(), IsEmpty());
    stream->flush();
    EXPECT_EQ(contentText(), std::string("\0\0aadddd", 8));
}

TEST_F(OptimizingIOStream, NothingOfTheCallersBufferIsKept) {
    Bytes bytes = filled(100, 7);
    writeAt(0, bytes);
    bytes.assign(100, 8);
    writeKeepBufferAt(100, filled(100, 9));
    writeKeepBufferAt(200, filled(20 * kKiB, 10));
    writeKeepBufferAt(200 + 20 * kKiB, filled(70 * kKiB, 11));
    stream->flush();
    Bytes expected = filled(100, 7);
    expected.resize(200, 9);
    expected.resize(200 + 20 * kKiB, 10);
    expected.resize(200 + 90 * kKiB, 11);
    EXPECT_EQ(inner->content(), expected);
}

// Passing through.

TEST_F(OptimizingIOStream, WritesOf64KiBAndMorePassThroughWithoutACopy) {
    for (int sizeBytes : {64 * kKiB, kMiB, 3 * kMiB}) {
        inner->operations().clear();
        Bytes const bytes = filled(sizeBytes, 5);
        writeAt(999, bytes);
        EXPECT_THAT(inner->operations(), ElementsAre(writeOf(999, sizeBytes)));
        EXPECT_EQ(inner->getLastMemory(), bytes.data());
        EXPECT_EQ(stream->getPosition(), 999 + sizeBytes);
    }
}

TEST_F(OptimizingIOStream, WritesBelow64KiBAreGathered) {
    for (int i = 0; i < 16; ++i)
        writeAt(i * (64 * kKiB - 1), filled(64 * kKiB - 1, 5));
    EXPECT_THAT(inner->operations(), IsEmpty());
}

TEST_F(OptimizingIOStream, WhatIsHeldBackArrivesBeforeAWriteThatPassesThrough) {
    inner->content() = filled(200 * kKiB, 1);
    writeAt(100, filled(10, 2));
    writeAt(50, filled(10, 3));
    writeAt(0, filled(64 * kKiB, 4));
    EXPECT_THAT(inner->operations(),
                ElementsAre(writeOf(100, 10), writeOf(50, 10), writeOf(0, 65536)));
    EXPECT_EQ(readAt(0, 200), filled(200, 4));
}

TEST_F(OptimizingIOStream, KeptBufferOf16KiBAndMorePassesThroughWithoutACopy) {
    yx::TBuffer<unsigned char> buffer(16 * kKiB + 10, -1);
    yx::initMemory(buffer.getData(), 6, 16 * kKiB + 10);
    stream->writeKeepBuffer(yx::TConstBufferSlice<unsigned char>(&buffer, 10, 16 * kKiB), nullptr);
    EXPECT_THAT(inner->operations(), ElementsAre(writeOf(0, 16 * kKiB)));
    EXPECT_EQ(inner->getLastMemory(), buffer.getData() + 10);
    stream->writeKeepBuffer(yx::TConstBufferSlice<unsigned char>(&buffer, 0, 16 * kKiB - 1),
                            nullptr);
    EXPECT_EQ(inner->operations().size(), 1U);
    EXPECT_EQ(stream->getPosition(), 32 * kKiB - 1);
}

TEST(OptimizingIOStreamGather, KeptBufferGoesTogetherWithThePendingBytesBeforeIt) {
    Stack<ScriptedGatherStream> stack;
    stack.writeAt(0, filled(300, 1));
    yx::TBuffer<unsigned char> buffer(20 * kKiB, -1);
    yx::initMemory(buffer.getData(), 2, 20 * kKiB);
    stack.stream->writeKeepBuffer(yx::TConstBufferSlice<unsigned char>(&buffer, 0, 20 * kKiB),
                                  nullptr);
    EXPECT_THAT(stack.inner->operations(), ElementsAre(gatherOf(0, 300 + 20 * kKiB)));
    EXPECT_EQ(stack.inner->getLastMemory(), buffer.getData());

    stack.writeAt(300 + 20 * kKiB, filled(212, 3));
    stack.writeAt(512 + 20 * kKiB, filled(64 * kKiB, 4));
    EXPECT_EQ(stack.inner->operations().back(), gatherOf(300 + 20 * kKiB, 212 + 64 * kKiB));
    stack.stream->flush();
    EXPECT_THAT(stack.inner->operationsOf(Kind::Write), IsEmpty());

    Bytes expected = filled(300, 1);
    expected.resize(300 + 20 * kKiB, 2);
    expected.resize(512 + 20 * kKiB, 3);
    expected.resize(512 + 84 * kKiB, 4);
    EXPECT_EQ(stack.inner->content(), expected);
}

TEST(OptimizingIOStreamGather, FailedGatheringKeepsThePendingBytes) {
    for (bool torn : {false, true}) {
        Stack<ScriptedGatherStream> stack;
        stack.inner->setTornWrites(torn);
        stack.writeAt(0, filled(300, 1));
        stack.inner->failOnce(Kind::Gather);
        EXPECT_TRUE(failsAsScripted([&] { stack.writeAt(300, filled(64 * kKiB, 2)); }));
        EXPECT_EQ(stack.stream->getPosition(), 300);
        EXPECT_EQ(stack.readAt(0, 300), filled(300, 1));
        stack.stream->flush();
        EXPECT_EQ(Bytes(stack.inner->content().begin(), stack.inner->content().begin() + 300),
                  filled(300, 1));
    }
}

TEST(OptimizingIOStreamGather, PendingBytesElsewhereArriveFirst) {
    Stack<ScriptedGatherStream> stack;
    stack.inner->content() = filled(1000, 9);
    stack.writeAt(0, filled(10, 1));
    stack.writeAt(1000, filled(10, 2));
    stack.writeAt(1010, filled(64 * kKiB, 3));
    EXPECT_THAT(stack.inner->operations(),
                ElementsAre(writeOf(1000, 10), writeOf(0, 10), writeOf(1010, 64 * kKiB)));
}

// Barriers.

TEST_F(OptimizingIOStream, BarrierIsThatOfTheStreamBehindAllWritesSoFar) {
    writeText(0, "abc");
    yx::P<yx::IWriteBarrier> const barrier = stream->createWriteBarrier(nullptr);
    EXPECT_TRUE(barrier);
    EXPECT_THAT(inner->operations(), ElementsAre(writeOf(0, 3), Operation{Kind::Barrier, 0, 0}));
}

TEST_F(OptimizingIOStream, WriteWithABarrierPassesItOn) {
    auto const barrier = yx::makeObject<yx::CDummyWriteBarrier>();
    writeText(0, "abc");
    stream->write("def", 3, barrier.get());
    EXPECT_THAT(inner->operations(), ElementsAre(writeOf(0, 3), writeOf(3, 3)));
    EXPECT_EQ(inner->getLastBarrier(), barrier.get());

    yx::TBuffer<unsigned char> buffer(1, -1);
    buffer.getData()[0] = 'g';
    inner->setFault({});
    stream->write("-", 1, nullptr);
    stream->writeKeepBuffer(yx::TConstBufferSlice<unsigned char>(&buffer, 0, 1), barrier.get());
    EXPECT_THAT(inner->operations(),
                ElementsAre(writeOf(0, 3), writeOf(3, 3), writeOf(6, 1), writeOf(7, 1)));
    EXPECT_EQ(contentText(), "abcdef-g");
}

// The end.

TEST_F(OptimizingIOStream, CloseWritesBackAndCloses) {
    writeText(0, "abc");
    stream->close();
    EXPECT_THAT(inner->operations(), ElementsAre(writeOf(0, 3), Operation{Kind::Close, 0, 0}));
    EXPECT_EQ(contentText(), "abc");
}

TEST_F(OptimizingIOStream, FailedCloseCanBeRepeated) {
    for (Kind kind : {Kind::Write, Kind::Close}) {
        Stack<ScriptedStream> stack;
        stack.writeAt(0, filled(3, 'a'));
        stack.inner->failOnce(kind);
        EXPECT_TRUE(failsAsScripted([&] { stack.stream->close(); }));
        EXPECT_EQ(stack.stream->getLength(), 3);
        EXPECT_EQ(stack.readAt(0, 3), filled(3, 'a'));
        stack.stream->close();
        EXPECT_TRUE(stack.inner->isClosed());
        EXPECT_EQ(stack.contentText(), "aaa");
    }
}

TEST_F(OptimizingIOStream, DestructorWritesBackWithoutFlushing) {
    writeText(0, "abc");
    stream.reset();
    EXPECT_THAT(inner->operations(), ElementsAre(writeOf(0, 3)));
    EXPECT_EQ(contentText(), "abc");
}

TEST_F(OptimizingIOStream, DestructorReportsAFailedWriteBack) {
    IgnoredExceptionCapture const ignored;
    writeText(0, "abc");
    inner->failOnce(Kind::Write);
    stream.reset();
    EXPECT_THAT(ignored.entries(), ElementsAre(IgnoredExceptionCapture::Entry{
                                       "yx::COptimizingIOStream", "Scripted failure.", true}));
}

TEST_F(OptimizingIOStream, EveryWritingOperationOfAClosedStreamIsRefused) {
    stream->close();
    yx::TBuffer<unsigned char> buffer(1, -1);
    yx::TConstBufferSlice<unsigned char> const slice(&buffer, 0, 1);
    Bytes const large(64 * kKiB);
    std::vector<std::function<void()>> const operations = {
        [&] { stream->write("a", 1, nullptr); },
        [&] { stream->write("a", 0, nullptr); },
        [&] { stream->write(large.data(), 64 * kKiB, nullptr); },
        [&] { stream->writeKeepBuffer(slice, nullptr); },
        [&] { stream->createWriteBarrier(nullptr); },
        [&] { stream->flush(); },
        [&] { stream->setLength(0); },
        [&] { stream->getLength(); },
        [&] { stream->seek(0); },
    };
    for (std::size_t i = 0; i < operations.size(); ++i) {
        EXPECT_TRUE(throwsIOError(yx::CIOError::Closed, "The stream is closed.",
                                  {{"uri", "test:/stream"}}, operations[i]))
            << "operation " << i;
    }
    stream->close();
    EXPECT_THAT(inner->operations(), ElementsAre(Operation{Kind::Close, 0, 0}));
}

// Arguments.

TEST_F(OptimizingIOStream, BadSizesAndLengthsAreRefusedAndChangeNothing) {
    EXPECT_TRUE(throwsInvalidArg("COptimizingIOStream::write", "Invalid size: -1",
                                 [&] { stream->write("a", -1, nullptr); }));
    EXPECT_TRUE(throwsIOError(yx::CIOError::BadPosition, "Invalid stream length: -5",
                              {{"uri", "test:/stream"}, {"length", "-5"}},
                              [&] { stream->setLength(-5); }));
    stream->seek(std::numeric_limits<__int64>::max());
    EXPECT_TRUE(throwsIOError(
        yx::CIOError::NoSpace, "The stream cannot become that long.",
        {{"uri", "test:/stream"}, {"position", "9223372036854775807"}, {"bytesToWrite", "1"}},
        [&] { stream->write("a", 1, nullptr); }));
    EXPECT_TRUE(throwsIOError(
        yx::CIOError::NoSpace, "The stream cannot become that long.",
        {{"uri", "test:/stream"}, {"position", "0"}, {"bytesToWrite", "9223372036854775807"}},
        [&] { stream->setLength(std::numeric_limits<__int64>::max()); }));
    EXPECT_THAT(inner->operations(), IsEmpty());
    EXPECT_EQ(stream->getLength(), 0);
}

TEST_F(OptimizingIOStream, EmptyWriteDoesNothing) {
    stream->seek(100);
    stream->write(nullptr, 0, nullptr);
    stream->flush();
    EXPECT_EQ(stream->getLength(), 0);
    EXPECT_THAT(inner->operations(), ElementsAre(kFlush));
}

} // namespace

} // namespace optimizing_io_stream_test

#include "yx/optimizing_io_stream.h"

#include <limits>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/expect_error.h"
#include "tests/support/scripted_stream.h"
#include "yx/log.h"
#include "yx/memory.h"

namespace {

using test_support::ScriptedAlignedStream;
using test_support::ScriptedGatherStream;
using test_support::ScriptedStream;
using test_support::throwsInvalidArg;
using test_support::throwsIOError;

using testing::ElementsAre;
using testing::IsEmpty;
using Kind = ScriptedStream::Kind;
using Operation = ScriptedStream::Operation;
using Bytes = std::vector<unsigned char>;

constexpr int kKiB = 1024;
constexpr int kMiB = 1024 * 1024;

Bytes filled(int sizeBytes, unsigned char value) {
    return Bytes(static_cast<std::size_t>(sizeBytes), value);
}

Operation writeOf(long long position, long long sizeBytes) {
    return {Kind::Write, position, sizeBytes};
}

Operation gatherOf(long long position, long long sizeBytes) {
    return {Kind::Gather, position, sizeBytes};
}

constexpr Operation kFlush{Kind::Flush, 0, 0};

template <class Inner>
class Stack {
public:
    template <class... Args>
    explicit Stack(Args... args)
        : inner(yx::makeObject<Inner>(args...)),
          stream(yx::makeObject<yx::COptimizingIOStream>(inner.get())) {}

    void writeAt(__int64 position, Bytes const& bytes) {
        stream->seek(position);
        stream->write(bytes.data(), static_cast<int>(bytes.size()), nullptr);
    }

    /// The buffer lives only as long as the call: a stream that kept a reference would be found out.
    void writeKeepBufferAt(__int64 position, Bytes const& bytes) {
        yx::TBuffer<unsigned char> buffer(static_cast<int>(bytes.size()), -1);
        yx::copyMemory(buffer.getData(), bytes.data(), bytes.size());
        stream->seek(position);
        stream->writeKeepBuffer(yx::TConstBufferSlice<unsigned char>(&buffer, 0, buffer.getUsed()),
                                nullptr);
        yx::initMemory(buffer.getData(), 0xEE, bytes.size());
    }

    Bytes readAt(__int64 position, int sizeBytes) {
        Bytes bytes(static_cast<std::size_t>(sizeBytes));
        stream->seek(position);
        stream->read(bytes.data(), sizeBytes);
        return bytes;
    }

    std::string contentText() const { return {inner->content().begin(), inner->content().end()}; }

    yx::P<Inner> inner;
    yx::P<yx::COptimizingIOStream> stream;
};

class OptimizingIOStream : public testing::Test, protected Stack<ScriptedStream> {
protected:
    void setContent(std::string const& text) { inner->content().assign(text.begin(), text.end()); }
    void writeText(__int64 position, std::string const& text) {
        writeAt(position, Bytes(text.begin(), text.end()));
    }
    std::string readText(__int64 position, int sizeBytes) {
        Bytes const bytes = readAt(position, sizeBytes);
        return {bytes.begin(), bytes.end()};
    }
};

testing::AssertionResult failsAsScripted(std::function<void()> const& action) {
    return throwsIOError(yx::CIOError::IOFailure, "Scripted failure.", {{"uri", "test:/stream"}},
                         action);
}

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

// Reading what was written.

TEST_F(OptimizingIOStream, ReadsSeeWhatIsHeldBack) {
    inner->content() = filled(300 * kKiB, 1);
    writeAt(1000, filled(50, 2));
    for (int sizeBytes : {100, 5000, 100 * kKiB}) {
        Bytes expected = filled(sizeBytes, 1);
        std::fill_n(expected.begin() + 20, 50, static_cast<unsigned char>(2));
        EXPECT_EQ(readAt(980, sizeBytes), expected) << sizeBytes;
    }
    EXPECT_THAT(inner->operationsOf(Kind::Write), IsEmpty());
}

TEST_F(OptimizingIOStream, WritesShowInWindowsThatWereReadBefore) {
    inner->content() = filled(300 * kKiB, 1);
    EXPECT_EQ(readAt(0, 100), filled(100, 1));
    writeAt(50, filled(20, 2));
    EXPECT_EQ(readAt(50, 20), filled(20, 2));
    writeAt(60, filled(64 * kKiB, 3));
    EXPECT_EQ(readAt(55, 5), filled(5, 2));
    EXPECT_EQ(readAt(60, 100), filled(100, 3));
    writeKeepBufferAt(0, filled(20 * kKiB, 4));
    EXPECT_EQ(readAt(0, 100), filled(100, 4));
}

TEST_F(OptimizingIOStream, WindowKeepsWhatLiesBeforeAWriteThatPassesThrough) {
    inner->content() = filled(300 * kKiB, 1);
    EXPECT_EQ(readAt(0, 100), filled(100, 1));
    writeAt(2000, filled(64 * kKiB, 2));
    inner->operations().clear();
    EXPECT_EQ(readAt(100, 1900), filled(1900, 1));
    EXPECT_THAT(inner->operations(), IsEmpty());
    EXPECT_EQ(readAt(2000, 10), filled(10, 2));
}

TEST_F(OptimizingIOStream, LengthCountsWhatIsHeldBack) {
    setContent("0123456789");
    EXPECT_EQ(stream->getLength(), 10);
    writeText(8, "ab");
    EXPECT_EQ(stream->getLength(), 10);
    writeText(10, "c");
    EXPECT_EQ(stream->getLength(), 11);
    EXPECT_FALSE((stream->seek(10), stream->isEndOfStream()));
    EXPECT_TRUE((stream->seek(10), stream->waitReadable(0)));
    EXPECT_TRUE((stream->seek(11), stream->isEndOfStream()));
    EXPECT_THAT(inner->operations(), IsEmpty());
}

TEST_F(OptimizingIOStream, GapBeforeAWritePastTheEndReadsAsZeros) {
    setContent("0123");
    writeText(8, "ab");
    EXPECT_EQ(stream->getLength(), 10);
    EXPECT_EQ(readText(0, 10), std::string("0123\0\0\0\0ab", 10));
    unsigned char bytes[20] = {};
    stream->seek(6);
    EXPECT_EQ(stream->readLax(bytes, 20), 4);
    EXPECT_EQ((stream->seek(5), stream->readAvailable(bytes, 20)), 5);
    stream->flush();
    EXPECT_EQ(contentText(), std::string("0123\0\0\0\0ab", 10));
}

TEST_F(OptimizingIOStream, LargeReadOverAGapReadsZeros) {
    writeAt(100 * kKiB, filled(10, 5));
    Bytes expected = filled(100 * kKiB, 0);
    expected.resize(100 * kKiB + 10, 5);
    EXPECT_EQ(readAt(0, 100 * kKiB + 10), expected);
}

TEST_F(OptimizingIOStream, ReadPastTheEndOfWhatIsHeldBackThrows) {
    writeText(0, "abc");
    stream->seek(1);
    unsigned char bytes[8] = {};
    EXPECT_TRUE(throwsIOError(yx::CIOError::UnexpectedEnd, "Unexpected end of the stream.",
                              {{"uri", "test:/stream"}, {"position", "1"}, {"bytesToRead", "3"}},
                              [&] { stream->read(bytes, 3); }));
    EXPECT_EQ(stream->getPosition(), 1);
    EXPECT_EQ(readText(1, 2), "bc");
}

// Lengths.

TEST_F(OptimizingIOStream, SetLengthCutsWhatIsHeldBackAndWhatWasReadAhead) {
    setContent("0123456789");
    EXPECT_EQ(readText(0, 4), "0123");
    writeText(2, "abcd");
    writeText(8, "xyz");
    stream->setLength(4);
    EXPECT_EQ(stream->getLength(), 4);
    EXPECT_EQ(stream->getPosition(), 11);
    stream->setLength(7);
    EXPECT_EQ(stream->getLength(), 7);
    EXPECT_EQ(readText(0, 7), std::string("01ab\0\0\0", 7));
    stream->flush();
    EXPECT_EQ(contentText(), std::string("01ab\0\0\0", 7));
}

TEST_F(OptimizingIOStream, SetLengthExtendsWithZerosAroundWhatIsHeldBack) {
    setContent("01");
    writeText(4, "ab");
    stream->setLength(8);
    EXPECT_EQ(stream->getLength(), 8);
    EXPECT_EQ(readText(0, 8), std::string("01\0\0ab\0\0", 8));
    stream->flush();
    EXPECT_EQ(contentText(), std::string("01\0\0ab\0\0", 8));
}

TEST_F(OptimizingIOStream, WhatSetLengthCutsTakesNoRoomAnyMore) {
    for (int i = 0; i < 100; ++i) {
        writeAt(0, filled(60 * kKiB, 1));
        stream->setLength(i % 2);
    }
    EXPECT_THAT(inner->operationsOf(Kind::Write), IsEmpty());
    EXPECT_EQ(stream->getLength(), 1);
}

TEST_F(OptimizingIOStream, SetLengthKeepsAPositionInsideAWindow) {
    setContent("0123456789");
    EXPECT_EQ(readText(0, 4), "0123");
    stream->setLength(6);
    EXPECT_EQ(stream->getPosition(), 4);
    char bytes[4] = {};
    EXPECT_EQ(stream->readLax(bytes, 4), 2);
    EXPECT_EQ(std::string(bytes, 2), "45");
}

TEST_F(OptimizingIOStream, FailedSetLengthChangesNothing) {
    setContent("0123456789");
    EXPECT_EQ(readText(0, 4), "0123");
    writeText(8, "abcd");
    inner->failOnce(Kind::SetLength);
    EXPECT_TRUE(failsAsScripted([&] { stream->setLength(2); }));
    EXPECT_EQ(stream->getLength(), 12);
    EXPECT_EQ(readText(0, 12), "01234567abcd");
    stream->flush();
    EXPECT_EQ(contentText(), "01234567abcd");
}

// Failures.

TEST_F(OptimizingIOStream, FailedFlushKeepsTheBytesAndTheNextOneWritesThem) {
    for (bool torn : {false, true}) {
        setContent("0123456789");
        inner->setTornWrites(torn);
        writeText(1, "abcd");
        writeText(7, "xy");
        inner->operations().clear();
        inner->failOnce(Kind::Write);
        EXPECT_TRUE(failsAsScripted([&] { stream->flush(); }));
        EXPECT_THAT(inner->operations(), ElementsAre(writeOf(1, 4)));
        EXPECT_EQ(readText(0, 10), "0abcd56xy9");
        stream->flush();
        EXPECT_EQ(contentText(), "0abcd56xy9");
        EXPECT_EQ(inner->operations().back(), kFlush);
    }
}

TEST_F(OptimizingIOStream, PiecesThatArrivedBeforeAFailureAreNotWrittenAgain) {
    setContent("0123456789");
    writeText(1, "a");
    writeText(5, "b");
    inner->setFault([](Operation const& operation) { return operation == writeOf(5, 1); });
    EXPECT_TRUE(failsAsScripted([&] { stream->flush(); }));
    inner->setFault({});
    stream->flush();
    EXPECT_THAT(inner->operations(),
                ElementsAre(writeOf(1, 1), writeOf(5, 1), writeOf(5, 1), kFlush));
}

TEST_F(OptimizingIOStream, FailureOfTheStreamsOwnFlushPasses) {
    writeText(0, "abc");
    inner->failOnce(Kind::Flush);
    EXPECT_TRUE(failsAsScripted([&] { stream->flush(); }));
    stream->flush();
    EXPECT_THAT(inner->operations(), ElementsAre(writeOf(0, 3), kFlush, kFlush));
}

TEST_F(OptimizingIOStream, WriteThatNeedsRoomFailsWholeAndCanBeRepeated) {
    for (int i = 0; i < 32; ++i)
        writeAt(i * 32 * kKiB, filled(32 * kKiB, 1));
    inner->failOnce(Kind::Write);
    stream->seek(kMiB);
    EXPECT_TRUE(failsAsScripted([&] { stream->write("abc", 3, nullptr); }));
    EXPECT_EQ(stream->getPosition(), kMiB);
    EXPECT_EQ(stream->getLength(), kMiB);
    stream->write("abc", 3, nullptr);
    stream->flush();
    Bytes expected = filled(kMiB, 1);
    expected.insert(expected.end(), {'a', 'b', 'c'});
    EXPECT_EQ(inner->content(), expected);
}

TEST_F(OptimizingIOStream, WhatIsHeldBackStaysBoundedWhileTheStreamFails) {
    inner->setFault([](Operation const& operation) { return operation.kind == Kind::Write; });
    int accepted = 0;
    for (int i = 0; i < 1000; ++i) {
        try {
            writeAt(i * 10000, filled(10000, 1));
            ++accepted;
        } catch (yx::CIOError const&) {
        }
    }
    EXPECT_EQ(accepted, 104);
    inner->setFault({});
    stream->flush();
    EXPECT_EQ(inner->content(), filled(1040000, 1));
}

TEST_F(OptimizingIOStream, AfterAFailedWriteThroughReadsShowWhatTheStreamHas) {
    for (bool torn : {false, true}) {
        inner->content() = filled(200 * kKiB, 1);
        EXPECT_EQ(readAt(0, 4096), filled(4096, 1));
        EXPECT_EQ(readAt(100 * kKiB, 4096), filled(4096, 1));
        inner->setTornWrites(torn);
        inner->failOnce(Kind::Write);
        EXPECT_TRUE(failsAsScripted([&] { writeAt(100, filled(150 * kKiB, 2)); }));
        EXPECT_EQ(stream->getPosition(), 100);
        EXPECT_EQ(readAt(0, 200 * kKiB), inner->content());
        EXPECT_EQ(readAt(200, 16), filled(16, torn ? 2 : 1));
        EXPECT_EQ(readAt(100 * kKiB, 16), filled(16, 1));
    }
}

TEST_F(OptimizingIOStream, WriteThroughThatFailsToWriteBackFirstChangesNothing) {
    inner->content() = filled(200 * kKiB, 1);
    writeAt(0, filled(10, 2));
    inner->failOnce(Kind::Write);
    EXPECT_TRUE(failsAsScripted([&] { writeAt(0, filled(64 * kKiB, 3)); }));
    EXPECT_EQ(readAt(0, 10), filled(10, 2));
    EXPECT_EQ(readAt(10, 10), filled(10, 1));
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
    std::vector<std::string> reports;
    auto const previous = yx::setIgnoredExceptionHandler(
        [&](char const* className, std::exception& error, bool flag) {
            reports.push_back(std::string(className) + ": " + error.what() +
                              (flag ? " true" : " false"));
        });
    writeText(0, "abc");
    inner->failOnce(Kind::Write);
    stream.reset();
    yx::setIgnoredExceptionHandler(previous);
    EXPECT_THAT(reports, ElementsAre("yx::COptimizingIOStream: Scripted failure. true"));
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

// Alignment.

class OptimizingIOStreamAlignment : public testing::Test, protected Stack<ScriptedAlignedStream> {
protected:
    OptimizingIOStreamAlignment() : Stack<ScriptedAlignedStream>(512, 64, 4096) {}
};

TEST_F(OptimizingIOStreamAlignment, EdgesAreReadAndWrittenBack) {
    inner->content() = filled(2048, 1);
    writeAt(700, filled(1000, 2));
    stream->flush();
    Bytes expected = filled(700, 1);
    expected.resize(1700, 2);
    expected.resize(2048, 1);
    EXPECT_EQ(inner->content(), expected);
    EXPECT_THAT(inner->operations(),
                ElementsAre(Operation{Kind::Read, 512, 512}, Operation{Kind::Read, 1536, 512},
                            writeOf(512, 1536), kFlush));
}

TEST_F(OptimizingIOStreamAlignment, LengthIsThatOfTheWritesNotOfTheBlocks) {
    writeAt(0, filled(700, 1));
    stream->flush();
    EXPECT_EQ(inner->content(), filled(700, 1));
    EXPECT_EQ(stream->getLength(), 700);
    EXPECT_EQ(inner->operations().back(), kFlush);
    writeAt(700, filled(1, 2));
    stream->flush();
    Bytes expected = filled(700, 1);
    expected.push_back(2);
    EXPECT_EQ(inner->content(), expected);
}

TEST_F(OptimizingIOStreamAlignment, PaddingThatCouldNotBeCutOffIsNoContent) {
    writeAt(0, filled(700, 1));
    inner->failOnce(Kind::SetLength);
    EXPECT_TRUE(failsAsScripted([&] { stream->flush(); }));
    EXPECT_EQ(inner->content().size(), 1024U);
    EXPECT_EQ(stream->getLength(), 700);
    Bytes bytes(1024);
    stream->seek(0);
    EXPECT_EQ(stream->readLax(bytes.data(), 1024), 700);
    stream->flush();
    EXPECT_EQ(inner->content(), filled(700, 1));
}

TEST_F(OptimizingIOStreamAlignment, PaddingThatCouldNotBeCutOffEndsBeforeTheNextWrite) {
    alignas(64) static unsigned char const source[64 * kKiB] = {};
    inner->failOnce(Kind::SetLength);
    EXPECT_TRUE(failsAsScripted([&] { writeAt(0, filled(64 * kKiB + 1, 1)); }));
    stream->seek(66048);
    stream->write(source, 64 * kKiB, nullptr);
    stream->flush();
    Bytes expected = filled(64 * kKiB + 1, 1);
    expected.resize(66048 + 64 * kKiB);
    EXPECT_EQ(inner->content(), expected);
}

TEST_F(OptimizingIOStreamAlignment, PaddingThatCouldNotBeCutOffEndsWithClose) {
    inner->failOnce(Kind::SetLength);
    EXPECT_TRUE(failsAsScripted([&] { writeAt(0, filled(64 * kKiB + 1, 1)); }));
    EXPECT_EQ(inner->content().size(), 66048U);
    stream->close();
    EXPECT_EQ(inner->content(), filled(64 * kKiB + 1, 1));
}

TEST_F(OptimizingIOStreamAlignment, FailedWriteAddsNothingToTheLength) {
    inner->setTornWrites(true);
    inner->content() = filled(100, 1);
    inner->failOnce(Kind::Write);
    EXPECT_TRUE(failsAsScripted([&] { writeAt(100, filled(70 * kKiB + 1, 2)); }));
    EXPECT_EQ(stream->getLength(), 100);
    stream->flush();
    EXPECT_EQ(inner->content(), filled(100, 1));
}

TEST_F(OptimizingIOStreamAlignment, WriteThatFitsPassesThroughWithoutACopy) {
    alignas(64) static unsigned char const source[128 * kKiB] = {1};
    stream->seek(512);
    stream->write(source, 128 * kKiB, nullptr);
    EXPECT_THAT(inner->operations(), ElementsAre(writeOf(512, 128 * kKiB)));
    EXPECT_EQ(inner->getLastMemory(), source);
}

TEST_F(OptimizingIOStreamAlignment, LargeWriteThatDoesNotFitArrivesWhole) {
    inner->content() = filled(kMiB, 1);
    Bytes source(700 * kKiB);
    for (std::size_t i = 0; i < source.size(); ++i)
        source[i] = static_cast<unsigned char>(i * 7 + i / 256);
    writeAt(1001, source);
    EXPECT_EQ(readAt(1001, 700 * kKiB), source);
    EXPECT_EQ(readAt(0, 1001), filled(1001, 1));
    EXPECT_EQ(inner->content().size(), static_cast<std::size_t>(kMiB));
    EXPECT_TRUE(std::equal(source.begin(), source.end(), inner->content().begin() + 1001));
}

} // namespace

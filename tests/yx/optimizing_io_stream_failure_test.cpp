// Streams that fail under the buffering layer.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/yx/optimizing_io_stream_fixture.h"
#include "yx/error.h"

namespace optimizing_io_stream_failure_test {

namespace {

using namespace optimizing_io_stream_fixture;

using testing::ElementsAre;
using OptimizingIOStreamFailure = OptimizingIOStreamFixture;

TEST_F(OptimizingIOStreamFailure, FailedFlushKeepsTheBytesAndTheNextOneWritesThem) {
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

TEST_F(OptimizingIOStreamFailure, PiecesThatArrivedBeforeAFailureAreNotWrittenAgain) {
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

TEST_F(OptimizingIOStreamFailure, FailureOfTheStreamsOwnFlushPasses) {
    writeText(0, "abc");
    inner->failOnce(Kind::Flush);
    EXPECT_TRUE(failsAsScripted([&] { stream->flush(); }));
    stream->flush();
    EXPECT_THAT(inner->operations(), ElementsAre(writeOf(0, 3), kFlush, kFlush));
}

TEST_F(OptimizingIOStreamFailure, WriteThatNeedsRoomFailsWholeAndCanBeRepeated) {
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

TEST_F(OptimizingIOStreamFailure, WhatIsHeldBackStaysBoundedWhileTheStreamFails) {
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

TEST_F(OptimizingIOStreamFailure, AfterAFailedWriteThroughReadsShowWhatTheStreamHas) {
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

TEST_F(OptimizingIOStreamFailure, WriteThroughThatFailsToWriteBackFirstChangesNothing) {
    inner->content() = filled(200 * kKiB, 1);
    writeAt(0, filled(10, 2));
    inner->failOnce(Kind::Write);
    EXPECT_TRUE(failsAsScripted([&] { writeAt(0, filled(64 * kKiB, 3)); }));
    EXPECT_EQ(readAt(0, 10), filled(10, 2));
    EXPECT_EQ(readAt(10, 10), filled(10, 1));
}

} // namespace

} // namespace optimizing_io_stream_failure_test

// What reads show of writes that are held back, and how lengths change with them.

#include <algorithm>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/expect_error.h"
#include "tests/yx/optimizing_io_stream_fixture.h"

namespace optimizing_io_stream_reading_test {

namespace {

using namespace optimizing_io_stream_fixture;

using test_support::throwsIOError;
using testing::IsEmpty;
using OptimizingIOStreamReading = OptimizingIOStreamFixture;

// Reading what was written.

TEST_F(OptimizingIOStreamReading, ReadsSeeWhatIsHeldBack) {
    inner->content() = filled(300 * kKiB, 1);
    writeAt(1000, filled(50, 2));
    for (int sizeBytes : {100, 5000, 100 * kKiB}) {
        Bytes expected = filled(sizeBytes, 1);
        std::fill_n(expected.begin() + 20, 50, static_cast<unsigned char>(2));
        EXPECT_EQ(readAt(980, sizeBytes), expected) << sizeBytes;
    }
    EXPECT_THAT(inner->operationsOf(Kind::Write), IsEmpty());
}

TEST_F(OptimizingIOStreamReading, WritesShowInWindowsThatWereReadBefore) {
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

TEST_F(OptimizingIOStreamReading, WindowKeepsWhatLiesBeforeAWriteThatPassesThrough) {
    inner->content() = filled(300 * kKiB, 1);
    EXPECT_EQ(readAt(0, 100), filled(100, 1));
    writeAt(2000, filled(64 * kKiB, 2));
    inner->operations().clear();
    EXPECT_EQ(readAt(100, 1900), filled(1900, 1));
    EXPECT_THAT(inner->operations(), IsEmpty());
    EXPECT_EQ(readAt(2000, 10), filled(10, 2));
}

TEST_F(OptimizingIOStreamReading, LengthCountsWhatIsHeldBack) {
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

TEST_F(OptimizingIOStreamReading, GapBeforeAWritePastTheEndReadsAsZeros) {
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

TEST_F(OptimizingIOStreamReading, LargeReadOverAGapReadsZeros) {
    writeAt(100 * kKiB, filled(10, 5));
    Bytes expected = filled(100 * kKiB, 0);
    expected.resize(100 * kKiB + 10, 5);
    EXPECT_EQ(readAt(0, 100 * kKiB + 10), expected);
}

TEST_F(OptimizingIOStreamReading, ReadPastTheEndOfWhatIsHeldBackThrows) {
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

TEST_F(OptimizingIOStreamReading, SetLengthCutsWhatIsHeldBackAndWhatWasReadAhead) {
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

TEST_F(OptimizingIOStreamReading, SetLengthExtendsWithZerosAroundWhatIsHeldBack) {
    setContent("01");
    writeText(4, "ab");
    stream->setLength(8);
    EXPECT_EQ(stream->getLength(), 8);
    EXPECT_EQ(readText(0, 8), std::string("01\0\0ab\0\0", 8));
    stream->flush();
    EXPECT_EQ(contentText(), std::string("01\0\0ab\0\0", 8));
}

TEST_F(OptimizingIOStreamReading, WhatSetLengthCutsTakesNoRoomAnyMore) {
    for (int i = 0; i < 100; ++i) {
        writeAt(0, filled(60 * kKiB, 1));
        stream->setLength(i % 2);
    }
    EXPECT_THAT(inner->operationsOf(Kind::Write), IsEmpty());
    EXPECT_EQ(stream->getLength(), 1);
}

TEST_F(OptimizingIOStreamReading, SetLengthKeepsAPositionInsideAWindow) {
    setContent("0123456789");
    EXPECT_EQ(readText(0, 4), "0123");
    stream->setLength(6);
    EXPECT_EQ(stream->getPosition(), 4);
    char bytes[4] = {};
    EXPECT_EQ(stream->readLax(bytes, 4), 2);
    EXPECT_EQ(std::string(bytes, 2), "45");
}

TEST_F(OptimizingIOStreamReading, FailedSetLengthChangesNothing) {
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

} // namespace

} // namespace optimizing_io_stream_reading_test

// Streams under the buffering layer that demand alignment.

#include <algorithm>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/scripted_stream.h"
#include "tests/yx/optimizing_io_stream_fixture.h"

namespace optimizing_io_stream_alignment_test {

namespace {

using namespace optimizing_io_stream_fixture;

using test_support::ScriptedAlignedStream;
using testing::ElementsAre;

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

TEST_F(OptimizingIOStreamAlignment, WhatAFailedWriteLeftDoesNotShowWhenTheLengthGrows) {
    inner->setTornWrites(true);
    inner->content() = filled(100, 1);
    inner->failOnce(Kind::Write);
    EXPECT_TRUE(failsAsScripted([&] { writeAt(100, filled(70 * kKiB + 1, 2)); }));
    stream->setLength(2000);
    Bytes expected = filled(100, 1);
    expected.resize(2000);
    EXPECT_EQ(readAt(0, 2000), expected);
    EXPECT_EQ(inner->content(), expected);
}

TEST_F(OptimizingIOStreamAlignment, ASetLengthThatCannotCutWhatAFailedWriteLeftChangesNothing) {
    inner->setTornWrites(true);
    inner->content() = filled(100, 1);
    inner->failOnce(Kind::Write);
    EXPECT_TRUE(failsAsScripted([&] { writeAt(100, filled(70 * kKiB + 1, 2)); }));
    inner->failOnce(Kind::SetLength);
    EXPECT_TRUE(failsAsScripted([&] { stream->setLength(2000); }));
    EXPECT_EQ(stream->getLength(), 100);
    stream->setLength(2000);
    Bytes expected = filled(100, 1);
    expected.resize(2000);
    EXPECT_EQ(inner->content(), expected);
}

TEST_F(OptimizingIOStreamAlignment, WaitingForDataSeeksToTheBlock) {
    inner->content() = filled(1000, 1);
    for (long long const position : {0, 1, 511, 512, 999}) {
        stream->seek(position);
        EXPECT_TRUE(stream->waitReadable(0)) << position;
    }
    for (long long const position : {1000, 1023, 1024, 5000}) {
        stream->seek(position);
        EXPECT_FALSE(stream->waitReadable(0)) << position;
    }
    EXPECT_EQ(stream->getPosition(), 5000);
}

} // namespace

} // namespace optimizing_io_stream_alignment_test

#include "yx/buffer_stream.h"

#include <functional>
#include <limits>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/bytes.h"
#include "tests/support/expect_error.h"

namespace {

using test_support::Buffer;
using test_support::throwsInvalidArg;
using test_support::throwsIOError;
using test_support::toBuffer;
using test_support::toBytes;
using testing::ElementsAre;

TEST(BufferStream, ReadsWhatTheBufferHolds) {
    Buffer buffer = toBuffer({1, 2, 3, 4, 5});
    yx::CBufferStream stream(&buffer, 2.0);
    unsigned char bytes[3] = {};

    EXPECT_EQ(stream.getLength(), 5);
    EXPECT_EQ(stream.getPosition(), 0);
    stream.read(bytes, 3);
    EXPECT_THAT(bytes, ElementsAre(1, 2, 3));
    EXPECT_EQ(stream.getPosition(), 3);
    stream.seek(1);
    stream.read(bytes, 2);
    EXPECT_THAT(bytes, ElementsAre(2, 3, 3));
}

TEST(BufferStream, ReadPastTheEndThrowsAndLeavesThePosition) {
    Buffer buffer = toBuffer({1, 2, 3});
    yx::CBufferStream stream(&buffer, 2.0);
    unsigned char bytes[3] = {};
    stream.seek(2);

    EXPECT_TRUE(throwsIOError(yx::CIOError::UnexpectedEnd, "Unexpected end of the stream.",
                              {{"uri", ""}, {"position", "2"}, {"bytesToRead", "2"}},
                              [&] { stream.read(bytes, 2); }));
    EXPECT_EQ(stream.getPosition(), 2);
    EXPECT_THAT(bytes, ElementsAre(0, 0, 0));
}

TEST(BufferStream, LaxReadsReturnWhatThereIs) {
    Buffer buffer = toBuffer({1, 2, 3});
    yx::CBufferStream stream(&buffer, 2.0);
    unsigned char bytes[3] = {};
    stream.seek(1);

    EXPECT_EQ(stream.readLax(bytes, 3), 2);
    EXPECT_THAT(bytes, ElementsAre(2, 3, 0));
    EXPECT_EQ(stream.readLax(bytes, 3), 0);
    stream.seek(2);
    EXPECT_EQ(stream.readAvailable(bytes, 3), 1);
    EXPECT_EQ(bytes[0], 3);
    stream.seek(100);
    EXPECT_EQ(stream.readLax(bytes, 3), 0);
    EXPECT_EQ(stream.getPosition(), 100);
}

TEST(BufferStream, EndIsWhereTheUsedSizeEnds) {
    Buffer buffer(16, 2);
    yx::CBufferStream stream(&buffer, 2.0);
    stream.seek(1);
    EXPECT_FALSE(stream.isEndOfStream());
    EXPECT_EQ(stream.isEndOfStream_NonBlocking(), 0);
    EXPECT_TRUE(stream.waitReadable(0));
    stream.seek(2);
    EXPECT_TRUE(stream.isEndOfStream());
    EXPECT_EQ(stream.isEndOfStream_NonBlocking(), 1);
    EXPECT_FALSE(stream.waitReadable(0));
    stream.seek(3);
    EXPECT_TRUE(stream.isEndOfStream());
}

TEST(BufferStream, WriteOverwritesAndExtends) {
    Buffer buffer = toBuffer({1, 2, 3});
    yx::CBufferStream stream(&buffer, 2.0);
    stream.seek(2);
    stream.write("abc", 3, nullptr);
    EXPECT_THAT(toBytes(buffer), ElementsAre(1, 2, 'a', 'b', 'c'));
    EXPECT_EQ(stream.getPosition(), 5);
    stream.seek(0);
    stream.write("x", 1, nullptr);
    EXPECT_THAT(toBytes(buffer), ElementsAre('x', 2, 'a', 'b', 'c'));
}

TEST(BufferStream, WritePastTheEndFillsTheGapWithZeros) {
    Buffer buffer = toBuffer({1, 2, 3, 4, 5, 6, 7});
    buffer.setUsed(2);
    yx::CBufferStream stream(&buffer, 2.0);
    stream.seek(5);
    stream.write("ab", 2, nullptr);
    EXPECT_THAT(toBytes(buffer), ElementsAre(1, 2, 0, 0, 0, 'a', 'b'));
}

TEST(BufferStream, EmptyWritePastTheEndDoesNotExtend) {
    Buffer buffer;
    yx::CBufferStream stream(&buffer, 2.0);
    stream.seek(5);
    stream.write("", 0, nullptr);
    EXPECT_EQ(stream.getLength(), 0);
}

TEST(BufferStream, WriteKeepBufferWritesTheSlice) {
    Buffer buffer;
    Buffer source = toBuffer({1, 2, 3, 4});
    yx::CBufferStream stream(&buffer, 2.0);
    stream.writeKeepBuffer(yx::TConstBufferSlice<unsigned char>(&source, 1, 2), nullptr);
    EXPECT_THAT(toBytes(buffer), ElementsAre(2, 3));
}

TEST(BufferStream, WriteOfItsOwnBytesSurvivesGrowth) {
    Buffer buffer = toBuffer({1, 2, 3, 4});
    yx::CBufferStream stream(&buffer, 2.0);
    stream.seek(2);
    stream.write(buffer.getData(), 4, nullptr);
    EXPECT_THAT(toBytes(buffer), ElementsAre(1, 2, 1, 2, 3, 4));
}

TEST(BufferStream, AllocationGrowsByTheFactorOrToWhatIsNeeded) {
    struct Case {
        double factor;
        int writtenBytes;
        int allocated;
    };
    for (Case const& c : {Case{2.0, 11, 20}, Case{2.0, 25, 25}, Case{1.5, 11, 15},
                          Case{1.0, 11, 11}, Case{0.0, 11, 11}, Case{-3.0, 11, 11},
                          Case{std::numeric_limits<double>::quiet_NaN(), 11, 11}}) {
        Buffer buffer(10, 0);
        yx::CBufferStream stream(&buffer, c.factor);
        std::vector<unsigned char> const bytes(static_cast<std::size_t>(c.writtenBytes));
        stream.write(bytes.data(), c.writtenBytes, nullptr);
        EXPECT_EQ(buffer.getAllocated(), c.allocated) << c.factor << ' ' << c.writtenBytes;
        EXPECT_EQ(buffer.getUsed(), c.writtenBytes);
    }
}

TEST(BufferStream, WritesWithinTheAllocationDoNotMoveTheBuffer) {
    Buffer buffer(512, 0);
    unsigned char const* const data = buffer.getData();
    yx::CBufferStream stream(&buffer, 2.0);
    for (int i = 0; i < 512; ++i)
        stream.write("x", 1, nullptr);
    EXPECT_EQ(buffer.getData(), data);
    EXPECT_EQ(buffer.getUsed(), 512);
}

TEST(BufferStream, SetLengthTruncatesAndExtendsWithZeros) {
    Buffer buffer = toBuffer({1, 2, 3, 4});
    yx::CBufferStream stream(&buffer, 2.0);
    stream.seek(4);
    stream.setLength(2);
    EXPECT_THAT(toBytes(buffer), ElementsAre(1, 2));
    stream.setLength(5);
    EXPECT_THAT(toBytes(buffer), ElementsAre(1, 2, 0, 0, 0));
    EXPECT_EQ(stream.getPosition(), 4);
}

TEST(BufferStream, LengthsThatNoBufferCanHoldAreNoSpace) {
    Buffer buffer = toBuffer({1});
    yx::CBufferStream stream(&buffer, 2.0);
    EXPECT_TRUE(throwsIOError(yx::CIOError::NoSpace, "The stream cannot become that long.",
                              {{"uri", ""}, {"position", "0"}, {"bytesToWrite", "2147483648"}},
                              [&] { stream.setLength(2147483648LL); }));
    stream.seek(2147483646LL);
    EXPECT_TRUE(throwsIOError(yx::CIOError::NoSpace, "The stream cannot become that long.",
                              {{"uri", ""}, {"position", "2147483646"}, {"bytesToWrite", "2"}},
                              [&] { stream.write("ab", 2, nullptr); }));
    stream.seek(std::numeric_limits<__int64>::max());
    EXPECT_TRUE(
        throwsIOError(yx::CIOError::NoSpace, "The stream cannot become that long.",
                      {{"uri", ""}, {"position", "9223372036854775807"}, {"bytesToWrite", "2"}},
                      [&] { stream.write("ab", 2, nullptr); }));
    EXPECT_THAT(toBytes(buffer), ElementsAre(1));
}

TEST(BufferStream, BadPositionsLengthsAndSizesAreRefused) {
    Buffer buffer;
    yx::CBufferStream stream(&buffer, 2.0);
    unsigned char byte = 0;
    EXPECT_TRUE(throwsIOError(yx::CIOError::BadPosition, "Invalid stream position: -1",
                              {{"uri", ""}, {"position", "-1"}}, [&] { stream.seek(-1); }));
    EXPECT_TRUE(throwsIOError(yx::CIOError::BadPosition, "Invalid stream length: -1",
                              {{"uri", ""}, {"length", "-1"}}, [&] { stream.setLength(-1); }));
    EXPECT_TRUE(throwsInvalidArg("CBufferStream::read", "Invalid size: -1",
                                 [&] { stream.read(&byte, -1); }));
    EXPECT_TRUE(throwsInvalidArg("CBufferStream::readLax", "Invalid size: -1",
                                 [&] { stream.readLax(&byte, -1); }));
    EXPECT_TRUE(throwsInvalidArg("CBufferStream::write", "Invalid size: -1",
                                 [&] { stream.write(&byte, -1, nullptr); }));
    EXPECT_EQ(stream.getPosition(), 0);
}

TEST(BufferStream, LockingIsNotSupported) {
    Buffer buffer;
    yx::CBufferStream stream(&buffer, 2.0);
    EXPECT_TRUE(throwsIOError(yx::CIOError::NotSupported, "The stream does not support locking.",
                              {{"uri", ""}},
                              [&] { stream.lockRange(0, 1, yx::IStreamBase::Shared); }));
}

TEST(BufferStream, BarriersAndFlushHaveNothingToDo) {
    Buffer buffer;
    yx::CBufferStream stream(&buffer, 2.0);
    yx::P<yx::IWriteBarrier> const barrier = stream.createWriteBarrier(nullptr);
    ASSERT_TRUE(barrier);
    EXPECT_TRUE(stream.createWriteBarrier(barrier.get()));
    stream.write("a", 1, barrier.get());
    stream.flush();
    EXPECT_THAT(toBytes(buffer), ElementsAre('a'));
}

TEST(BufferStream, EveryOperationOfAClosedStreamIsRefused) {
    Buffer buffer = toBuffer({1});
    yx::CBufferStream stream(&buffer, 2.0);
    stream.close();
    stream.close();
    EXPECT_TRUE(stream.getURI().isEmpty());

    unsigned char byte = 0;
    std::vector<std::function<void()>> const operations = {
        [&] { stream.getLength(); },
        [&] { stream.getPosition(); },
        [&] { stream.seek(0); },
        [&] { stream.lockRange(0, 1, yx::IStreamBase::Shared); },
        [&] { stream.read(&byte, 1); },
        [&] { stream.readLax(&byte, 1); },
        [&] { stream.readAvailable(&byte, 1); },
        [&] { stream.waitReadable(0); },
        [&] { stream.isEndOfStream(); },
        [&] { stream.isEndOfStream_NonBlocking(); },
        [&] { stream.write(&byte, 1, nullptr); },
        [&] {
            stream.writeKeepBuffer(yx::TConstBufferSlice<unsigned char>(&buffer, 0, 1), nullptr);
        },
        [&] { stream.createWriteBarrier(nullptr); },
        [&] { stream.flush(); },
        [&] { stream.setLength(0); },
    };
    for (std::size_t i = 0; i < operations.size(); ++i) {
        EXPECT_TRUE(throwsIOError(yx::CIOError::Closed, "The stream is closed.", {{"uri", ""}},
                                  operations[i]))
            << "operation " << i;
    }
    EXPECT_THAT(toBytes(buffer), ElementsAre(1));
}

} // namespace

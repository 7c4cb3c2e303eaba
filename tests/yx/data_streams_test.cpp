#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/expect_error.h"
#include "tests/support/scripted_stream.h"
#include "yx/data_in_stream.h"
#include "yx/data_out_stream.h"

namespace {

using test_support::ScriptedStream;
using test_support::throwsIOError;
using testing::ElementsAre;
using Kind = ScriptedStream::Kind;
using Operation = ScriptedStream::Operation;

yx::P<ScriptedStream> makeStream(std::vector<unsigned char> content = {}) {
    return yx::makeObject<ScriptedStream>(std::move(content));
}

TEST(DataInStream, LeastSignificantByteComesFirst) {
    auto const stream = makeStream(
        {0xFE, 0x34, 0x12, 0x78, 0x56, 0x34, 0xF2, 0xEF, 0xCD, 0xAB, 0x90, 0x78, 0x56, 0x34, 0xF2});
    yx::CDataInStream data(stream.get());

    EXPECT_EQ(data.readUInt8(), 0xFEU);
    EXPECT_EQ(data.readUInt16(), 0x1234U);
    EXPECT_EQ(data.readUInt32(), 0xF2345678U);
    EXPECT_EQ(data.readUInt64(), 0xF234567890ABCDEFULL);
    EXPECT_EQ(data.getPosition(), 15);
}

TEST(DataInStream, ValueCutOffByTheEndThrowsTheStreamsError) {
    auto const stream = makeStream({1, 2, 3});
    yx::CDataInStream data(stream.get());
    EXPECT_TRUE(throwsIOError(yx::CIOError::UnexpectedEnd, "Unexpected end of the scripted stream.",
                              {{"uri", "test:/stream"}}, [&] { data.readUInt32(); }));
}

TEST(DataInStream, ForwardsEveryOperationToTheStream) {
    auto const stream = makeStream({10, 11, 12, 13, 14, 15});
    yx::CDataInStream data(stream.get());
    unsigned char bytes[4] = {};

    EXPECT_EQ(data.getLength(), 6);
    EXPECT_EQ(data.getURI().toString(true), "test:/stream");
    data.seek(1);
    EXPECT_EQ(stream->getPosition(), 1);
    data.read(bytes, 2);
    EXPECT_THAT(bytes, ElementsAre(11, 12, 0, 0));
    EXPECT_EQ(data.readAvailable(bytes, 1), 1);
    EXPECT_TRUE(data.waitReadable(0));
    EXPECT_FALSE(data.isEndOfStream());
    EXPECT_EQ(data.isEndOfStream_NonBlocking(), 0);
    EXPECT_EQ(data.readLax(bytes, 4), 2);
    EXPECT_THAT(bytes, ElementsAre(14, 15, 0, 0));
    EXPECT_TRUE(data.isEndOfStream());
    EXPECT_EQ(data.isEndOfStream_NonBlocking(), 1);
    EXPECT_FALSE(data.waitReadable(0));
    EXPECT_TRUE(data.lockRange(3, 2, yx::IStreamBase::Exclusive));
    EXPECT_THAT(stream->operationsOf(Kind::Lock), ElementsAre(Operation{Kind::Lock, 3, 2}));
    data.close();
    EXPECT_TRUE(stream->isClosed());
}

TEST(DataInStream, KeepsTheStreamAlive) {
    yx::CDataInStream data(makeStream({5}).get());
    EXPECT_EQ(data.readUInt8(), 5U);
}

TEST(DataOutStream, LeastSignificantByteGoesFirst) {
    auto const stream = makeStream();
    yx::CDataOutStream data(stream.get());
    data.writeUInt8(0xFE).writeUInt16(0x1234).writeUInt32(0xF2345678U);
    data.writeUInt64(0xF234567890ABCDEFULL).writeInt64(-2);

    EXPECT_THAT(stream->content(),
                ElementsAre(0xFE, 0x34, 0x12, 0x78, 0x56, 0x34, 0xF2, 0xEF, 0xCD, 0xAB, 0x90, 0x78,
                            0x56, 0x34, 0xF2, 0xFE, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF));
    EXPECT_EQ(data.getPosition(), 23);
}

TEST(DataOutStream, EachWriteReturnsTheObjectItself) {
    auto const stream = makeStream();
    yx::CDataOutStream data(stream.get());
    EXPECT_EQ(&data.writeUInt8(0), &data);
    EXPECT_EQ(&data.writeUInt16(0), &data);
    EXPECT_EQ(&data.writeUInt32(0), &data);
    EXPECT_EQ(&data.writeUInt64(0), &data);
    EXPECT_EQ(&data.writeInt64(0), &data);
}

TEST(DataOutStream, ForwardsEveryOperationToTheStream) {
    auto const stream = makeStream({1, 2, 3});
    yx::CDataOutStream data(stream.get());
    yx::TBuffer<unsigned char> buffer(2, -1);
    buffer.getData()[0] = 8;
    buffer.getData()[1] = 9;

    EXPECT_EQ(data.getLength(), 3);
    EXPECT_EQ(data.getURI().toString(true), "test:/stream");
    yx::P<yx::IWriteBarrier> const barrier = data.createWriteBarrier(nullptr);
    data.seek(2);
    data.write("a", 1, barrier.get());
    EXPECT_EQ(stream->getLastBarrier(), barrier.get());
    data.writeKeepBuffer(yx::TConstBufferSlice<unsigned char>(&buffer, 0, 2), nullptr);
    EXPECT_THAT(stream->content(), ElementsAre(1, 2, 'a', 8, 9));
    data.flush();
    data.setLength(4);
    EXPECT_THAT(stream->content(), ElementsAre(1, 2, 'a', 8));
    EXPECT_TRUE(data.lockRange(0, 4, yx::IStreamBase::Shared));
    data.close();
    EXPECT_TRUE(stream->isClosed());
    EXPECT_THAT(stream->operations(),
                ElementsAre(Operation{Kind::Barrier, 0, 0}, Operation{Kind::Write, 2, 1},
                            Operation{Kind::Write, 3, 2}, Operation{Kind::Flush, 0, 0},
                            Operation{Kind::SetLength, 4, 0}, Operation{Kind::Lock, 0, 4},
                            Operation{Kind::Close, 0, 0}));
}

} // namespace

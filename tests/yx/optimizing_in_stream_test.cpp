#include "yx/optimizing_in_stream.h"

#include <functional>
#include <limits>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/bytes.h"
#include "tests/support/expect_error.h"
#include "tests/support/scripted_stream.h"
#include "yx/optimizing_io_stream.h"

namespace optimizing_in_stream_test {

namespace {

using test_support::Bytes;
using test_support::pattern;
using test_support::ScriptedAlignedStream;
using test_support::ScriptedStream;
using test_support::throwsInvalidArg;
using test_support::throwsIOError;
using testing::ElementsAre;
using testing::IsEmpty;
using Kind = ScriptedStream::Kind;
using Operation = ScriptedStream::Operation;

constexpr int kKiB = 1024;
constexpr int kMiB = 1024 * 1024;

Bytes part(Bytes const& content, int position, int sizeBytes) {
    return {content.begin() + position, content.begin() + position + sizeBytes};
}

Bytes readAt(yx::IInStream& stream, int position, int sizeBytes) {
    Bytes bytes(static_cast<std::size_t>(sizeBytes));
    stream.seek(position);
    stream.read(bytes.data(), sizeBytes);
    return bytes;
}

Operation readOf(long long position, long long sizeBytes) {
    return {Kind::Read, position, sizeBytes};
}

class OptimizingInStream : public testing::Test {
protected:
    OptimizingInStream()
        : content(sharedContent()),
          inner(yx::makeObject<ScriptedStream>(content)),
          stream(yx::makeObject<yx::COptimizingInStream>(inner.get())) {}

    static Bytes const& sharedContent() {
        static Bytes const result = pattern(4 * kMiB, 1);
        return result;
    }

    void expectContent(int position, int sizeBytes) {
        EXPECT_EQ(readAt(*stream, position, sizeBytes), part(content, position, sizeBytes))
            << position << '+' << sizeBytes;
    }

    Bytes content;
    yx::P<ScriptedStream> inner;
    yx::P<yx::COptimizingInStream> stream;
};

TEST_F(OptimizingInStream, StartsAtTheBeginningAndFollowsSeeksAndReads) {
    EXPECT_EQ(stream->getPosition(), 0);
    EXPECT_EQ(stream->getLength(), 4 * kMiB);
    EXPECT_EQ(stream->getURI().toString(true), "test:/stream");
    expectContent(100, 50);
    EXPECT_EQ(stream->getPosition(), 150);
    stream->seek(120);
    EXPECT_EQ(stream->getPosition(), 120);
    stream->seek(4 * kMiB + 7);
    EXPECT_EQ(stream->getPosition(), 4 * kMiB + 7);
}

TEST_F(OptimizingInStream, NothingIsReadBeforeItIsAskedFor) {
    stream->seek(1000);
    stream->getLength();
    stream->isEndOfStream();
    EXPECT_THAT(inner->operations(), IsEmpty());
}

TEST_F(OptimizingInStream, FirstSmallReadFetchesOnePage) {
    expectContent(1000, 16);
    EXPECT_THAT(inner->operations(), ElementsAre(readOf(1000, 4096)));
}

TEST_F(OptimizingInStream, TheVeryFirstSmallReadFetchesAsMuchAsWasSaid) {
    auto const longer = yx::makeObject<yx::COptimizingIOStream>(inner.get(), 40 * kKiB);
    for (int const position : {0, 1000, 40 * kKiB - 10, 3 * kMiB}) {
        EXPECT_EQ(readAt(*longer, position, 10), part(content, position, 10));
    }
    EXPECT_THAT(inner->operations(), ElementsAre(readOf(0, 40 * kKiB), readOf(3 * kMiB, 4096)));
}

TEST_F(OptimizingInStream, TheVeryFirstFetchKeepsToTheLimitsOfAll) {
    for (auto const& [wanted, fetched] :
         {std::pair(-1, 4096), std::pair(1, 4096), std::pair(4 * kMiB, 256 * kKiB)}) {
        inner->operations().clear();
        auto const limited = yx::makeObject<yx::COptimizingIOStream>(inner.get(), wanted);
        EXPECT_EQ(readAt(*limited, 7, 10), part(content, 7, 10));
        EXPECT_THAT(inner->operations(), ElementsAre(readOf(7, fetched)));
    }
}

TEST_F(OptimizingInStream, ScatteredSmallReadsFetchOnePageEach) {
    for (int position : {3000000, 100000, 2000000, 50000, 1000000, 3500000})
        expectContent(position, 512);
    EXPECT_THAT(inner->operations(),
                ElementsAre(readOf(3000000, 4096), readOf(100000, 4096), readOf(2000000, 4096),
                            readOf(50000, 4096), readOf(1000000, 4096), readOf(3500000, 4096)));
}

TEST_F(OptimizingInStream, ScatteredReadsOfAPageAndMoreFetchJustThemselves) {
    for (int position : {3000000, 100000, 2000000, 50000})
        expectContent(position, 4096);
    expectContent(1000000, 20000);
    EXPECT_THAT(inner->operations(),
                ElementsAre(readOf(3000000, 4096), readOf(100000, 4096), readOf(2000000, 4096),
                            readOf(50000, 4096), readOf(1000000, 20000)));
}

TEST_F(OptimizingInStream, SequentialReadsFetchEverLargerPieces) {
    for (int position = 0; position < kMiB; position += 512)
        expectContent(position, 512);
    EXPECT_THAT(inner->operations(),
                ElementsAre(readOf(0, 4096), readOf(4096, 16384), readOf(20480, 65536),
                            readOf(86016, 262144), readOf(348160, 262144), readOf(610304, 262144),
                            readOf(872448, 262144)));
}

TEST_F(OptimizingInStream, PaddingBetweenRecordsDoesNotEndASequence) {
    // Each record of 5000 bytes begins at a sector; 120 bytes of padding are never read.
    for (int position = 0; position < 40 * 5120; position += 5120)
        expectContent(position, 5000);
    EXPECT_THAT(inner->operations(), ElementsAre(readOf(0, 5000), readOf(5120, 16384),
                                                 readOf(21504, 65536), readOf(87040, 262144)));
}

TEST_F(OptimizingInStream, ReadAcrossTheEndOfAWindowTakesBothParts) {
    expectContent(0, 100);
    expectContent(4000, 500);
    EXPECT_THAT(inner->operations(), ElementsAre(readOf(0, 4096), readOf(4096, 16384)));
}

TEST_F(OptimizingInStream, FourSequencesSideBySideKeepTheirWindows) {
    for (int offset = 0; offset < 4096; offset += 256) {
        for (int begin : {0, 1000000, 2000000, 3000000})
            expectContent(begin + offset, 256);
    }
    EXPECT_THAT(inner->operations(), ElementsAre(readOf(0, 4096), readOf(1000000, 4096),
                                                 readOf(2000000, 4096), readOf(3000000, 4096)));
}

TEST_F(OptimizingInStream, SequencesOfLongerReadsSideBySideAreRecognised) {
    for (int position : {0, 5000}) {
        for (int begin : {0, 1000000, 2000000, 3000000})
            expectContent(begin + position, 5000);
    }
    EXPECT_THAT(inner->operations(),
                ElementsAre(readOf(0, 5000), readOf(1000000, 5000), readOf(2000000, 5000),
                            readOf(3000000, 5000), readOf(5000, 16384), readOf(1005000, 16384),
                            readOf(2005000, 16384), readOf(3005000, 16384)));
}

TEST_F(OptimizingInStream, AWindowInUseOutlivesScatteredReads) {
    expectContent(0, 16);
    for (int i = 1; i <= 20; ++i) {
        expectContent(i * 100000, 4096);
        expectContent(i * 16, 16);
    }
    EXPECT_EQ(inner->operations().size(), 21U);
}

TEST_F(OptimizingInStream, ReadsOf64KiBAndMorePassThroughWithoutACopy) {
    for (int sizeBytes : {64 * kKiB, kMiB}) {
        Bytes target(static_cast<std::size_t>(sizeBytes));
        inner->operations().clear();
        stream->seek(12345);
        stream->read(target.data(), sizeBytes);
        EXPECT_THAT(inner->operations(), ElementsAre(readOf(12345, sizeBytes)));
        EXPECT_EQ(inner->getLastMemory(), target.data());
        EXPECT_EQ(target, part(content, 12345, sizeBytes));
        EXPECT_EQ(stream->getPosition(), 12345 + sizeBytes);
    }
}

TEST_F(OptimizingInStream, ReadsBelow64KiBInASequenceComeFromWindows) {
    constexpr int kSizeBytes = 64 * kKiB - 1;
    for (int i = 0; i < 8; ++i)
        expectContent(i * kSizeBytes, kSizeBytes);
    // The window of 256 KiB holds four reads and a part of the fifth.
    EXPECT_LT(inner->operations().size(), 8U);
}

TEST_F(OptimizingInStream, ReadPastTheEndThrowsAndLeavesThePosition) {
    Bytes target(200 * kKiB);
    struct Case {
        int position;
        int sizeBytes;
        char const* positionText;
        char const* sizeText;
    };
    for (Case const& c :
         {Case{4194303, 2, "4194303", "2"}, Case{4194304, 1, "4194304", "1"},
          Case{5000000, 10, "5000000", "10"}, Case{4190000, 5000, "4190000", "5000"},
          Case{4094304, 102400, "4094304", "102400"}}) {
        stream->seek(c.position);
        EXPECT_TRUE(throwsIOError(
            yx::CIOError::UnexpectedEnd, "Unexpected end of the stream.",
            {{"uri", "test:/stream"}, {"position", c.positionText}, {"bytesToRead", c.sizeText}},
            [&] { stream->read(target.data(), c.sizeBytes); }));
        EXPECT_EQ(stream->getPosition(), c.position);
    }
    expectContent(4194304 - 100, 100);
}

TEST_F(OptimizingInStream, LaxReadsReturnWhatThereIs) {
    Bytes target(200 * kKiB);
    stream->seek(4194304 - 10);
    EXPECT_EQ(stream->readLax(target.data(), 100), 10);
    EXPECT_EQ(part(target, 0, 10), part(content, 4194304 - 10, 10));
    EXPECT_EQ(stream->getPosition(), 4194304);
    EXPECT_EQ(stream->readLax(target.data(), 100), 0);
    stream->seek(4194304 - 70000);
    EXPECT_EQ(stream->readLax(target.data(), 150000), 70000);
    EXPECT_EQ(part(target, 0, 70000), part(content, 4194304 - 70000, 70000));
    stream->seek(9000000);
    EXPECT_EQ(stream->readLax(target.data(), 100), 0);
    EXPECT_EQ(stream->readLax(target.data(), 100000), 0);
    EXPECT_EQ(stream->getPosition(), 9000000);
    stream->seek(std::numeric_limits<__int64>::max());
    EXPECT_EQ(stream->readLax(target.data(), 100), 0);
    EXPECT_EQ(stream->readLax(target.data(), 100000), 0);
}

TEST_F(OptimizingInStream, ReadAvailableReturnsWhatIsInMemoryFirst) {
    Bytes target(8192);
    expectContent(0, 96);
    EXPECT_EQ(stream->readAvailable(target.data(), 8192), 4000);
    EXPECT_EQ(part(target, 0, 4000), part(content, 96, 4000));
    EXPECT_EQ(stream->readAvailable(target.data(), 8192), 8192);
    EXPECT_EQ(target, part(content, 4096, 8192));
    EXPECT_EQ(stream->getPosition(), 12288);
}

TEST_F(OptimizingInStream, EndOfStreamIsAtTheLength) {
    stream->seek(4194303);
    EXPECT_FALSE(stream->isEndOfStream());
    EXPECT_EQ(stream->isEndOfStream_NonBlocking(), 0);
    EXPECT_TRUE(stream->waitReadable(0));
    unsigned char byte = 0;
    stream->read(&byte, 1);
    EXPECT_TRUE(stream->isEndOfStream());
    EXPECT_EQ(stream->isEndOfStream_NonBlocking(), 1);
    EXPECT_FALSE(stream->waitReadable(0));
    stream->seek(4194400);
    EXPECT_TRUE(stream->isEndOfStream());
}

TEST_F(OptimizingInStream, SizeZeroReadsNothing) {
    stream->seek(4194304);
    stream->read(nullptr, 0);
    EXPECT_EQ(stream->readLax(nullptr, 0), 0);
    EXPECT_EQ(stream->getPosition(), 4194304);
    EXPECT_THAT(inner->operations(), IsEmpty());
}

TEST_F(OptimizingInStream, BadPositionsAndSizesAreRefusedAndChangeNothing) {
    unsigned char byte = 0;
    expectContent(8, 8);
    EXPECT_TRUE(throwsIOError(yx::CIOError::BadPosition, "Invalid stream position: -1",
                              {{"uri", "test:/stream"}, {"position", "-1"}},
                              [&] { stream->seek(-1); }));
    EXPECT_TRUE(throwsInvalidArg("COptimizingInStream::read", "Invalid size: -1",
                                 [&] { stream->read(&byte, -1); }));
    EXPECT_TRUE(throwsInvalidArg("COptimizingInStream::readLax", "Invalid size: -2",
                                 [&] { stream->readLax(&byte, -2); }));
    EXPECT_TRUE(throwsInvalidArg("COptimizingInStream::readAvailable", "Invalid size: -3",
                                 [&] { stream->readAvailable(&byte, -3); }));
    stream->seek(4194304);
    EXPECT_TRUE(throwsInvalidArg("COptimizingInStream::readAvailable", "Invalid size: -3",
                                 [&] { stream->readAvailable(&byte, -3); }));
    EXPECT_EQ(stream->getPosition(), 4194304);
}

TEST_F(OptimizingInStream, FailedReadLeavesThePositionAndCanBeRepeated) {
    Bytes target(100 * kKiB);
    expectContent(0, 4000);
    for (int sizeBytes : {500, 5000, 100 * kKiB}) {
        stream->seek(4000);
        inner->failOnce(Kind::Read);
        EXPECT_TRUE(throwsIOError(yx::CIOError::IOFailure, "Scripted failure.",
                                  {{"uri", "test:/stream"}},
                                  [&] { stream->read(target.data(), sizeBytes); }));
        EXPECT_EQ(stream->getPosition(), 4000);
        inner->setFault({});
        stream->read(target.data(), sizeBytes);
        EXPECT_EQ(part(target, 0, sizeBytes), part(content, 4000, sizeBytes));
        // Something else, so that the next read has to fetch again.
        for (int begin : {1000000, 2000000, 3000000, 3500000})
            expectContent(begin, 4096);
        expectContent(0, 4000);
    }
}

TEST_F(OptimizingInStream, LockIsThatOfTheStreamAndForgetsWhatWasReadAhead) {
    expectContent(0, 16);
    EXPECT_TRUE(stream->lockRange(5, 6, yx::IStreamBase::Shared));
    EXPECT_THAT(inner->operationsOf(Kind::Lock), ElementsAre(Operation{Kind::Lock, 5, 6}));
    EXPECT_EQ(stream->getPosition(), 16);
    // What another holder of the lock has written meanwhile:
    inner->content()[16] = static_cast<unsigned char>(~inner->content()[16]);
    content[16] = inner->content()[16];
    expectContent(16, 1);
}

TEST_F(OptimizingInStream, ReportsNoDemandOnAlignment) {
    EXPECT_EQ(stream->getPositionAlign(), 1);
    EXPECT_EQ(stream->getBufferAlign(), 1);
    EXPECT_EQ(stream->getBestPerformancePositionAlign(), 4096);
}

TEST_F(OptimizingInStream, CloseClosesTheStreamOnce) {
    stream->close();
    EXPECT_TRUE(inner->isClosed());
    stream->close();
    EXPECT_THAT(inner->operationsOf(Kind::Close), ElementsAre(Operation{Kind::Close, 0, 0}));
}

TEST_F(OptimizingInStream, EveryOperationOfAClosedStreamIsRefused) {
    expectContent(0, 16);
    stream->close();
    EXPECT_EQ(stream->getURI().toString(true), "test:/stream");

    unsigned char byte = 0;
    std::vector<std::function<void()>> const operations = {
        [&] { stream->getLength(); },
        [&] { stream->getPosition(); },
        [&] { stream->seek(0); },
        [&] { stream->seek(16); },
        [&] { stream->lockRange(0, 1, yx::IStreamBase::Shared); },
        [&] { stream->read(&byte, 1); },
        [&] { stream->readLax(&byte, 1); },
        [&] { stream->readAvailable(&byte, 1); },
        [&] { stream->waitReadable(0); },
        [&] { stream->isEndOfStream(); },
        [&] { stream->isEndOfStream_NonBlocking(); },
    };
    for (std::size_t i = 0; i < operations.size(); ++i) {
        EXPECT_TRUE(throwsIOError(yx::CIOError::Closed, "The stream is closed.",
                                  {{"uri", "test:/stream"}}, operations[i]))
            << "operation " << i;
    }
}

TEST_F(OptimizingInStream, LastReferenceToTheStreamUnderItGoesWithIt) {
    ScriptedStream* const raw = inner.get();
    raw->addRef();
    inner.reset();
    expectContent(0, 16);
    stream.reset();
    EXPECT_FALSE(raw->isClosed());
    raw->release();
}

TEST(OptimizingInStreamAlignment, EveryReadFitsTheDemandOfTheStream) {
    Bytes const content = pattern(300 * kKiB + 77, 1);
    auto const inner = yx::makeObject<ScriptedAlignedStream>(512, 64, 65536);
    inner->content() = content;
    auto const stream = yx::makeObject<yx::COptimizingInStream>(inner.get());

    for (int position : {0, 1, 511, 512, 100000, 299 * kKiB}) {
        for (int sizeBytes : {1, 511, 512, 513, 1100})
            EXPECT_EQ(readAt(*stream, position, sizeBytes), part(content, position, sizeBytes));
    }
    EXPECT_EQ(readAt(*stream, 3, 290 * kKiB), part(content, 3, 290 * kKiB));

    Bytes target(300 * kKiB);
    stream->seek(300 * kKiB + 70);
    EXPECT_EQ(stream->readLax(target.data(), 100), 7);
    EXPECT_EQ(part(target, 0, 7), part(content, 300 * kKiB + 70, 7));
    stream->seek(100);
    EXPECT_EQ(stream->readLax(target.data(), 300 * kKiB), 300 * kKiB + 77 - 100);
    EXPECT_EQ(part(target, 0, 300 * kKiB - 23), part(content, 100, 300 * kKiB - 23));
    EXPECT_EQ(stream->getLength(), 300 * kKiB + 77);
}

TEST(OptimizingInStreamAlignment, ReadThatFitsPassesThroughWithoutACopy) {
    auto const inner = yx::makeObject<ScriptedAlignedStream>(512, 64, 65536);
    inner->content() = pattern(kMiB, 1);
    auto const stream = yx::makeObject<yx::COptimizingInStream>(inner.get());
    alignas(64) static unsigned char target[128 * kKiB];

    stream->seek(1024);
    stream->read(target, 128 * kKiB);
    EXPECT_THAT(inner->operations(), ElementsAre(readOf(1024, 128 * kKiB)));
    EXPECT_EQ(inner->getLastMemory(), target);
}

TEST(OptimizingInStreamAlignment, DemandIsHiddenAndThePreferenceIsPassedOn) {
    auto const inner = yx::makeObject<ScriptedAlignedStream>(512, 64, 65536);
    auto const stream = yx::makeObject<yx::COptimizingInStream>(inner.get());
    EXPECT_EQ(stream->getPositionAlign(), 1);
    EXPECT_EQ(stream->getBufferAlign(), 1);
    EXPECT_EQ(stream->getBestPerformancePositionAlign(), 65536);
}

} // namespace

} // namespace optimizing_in_stream_test

// What holds at every level of both compressors: streams that every library reads, and targets that
// are as small as can be.

#include <algorithm>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "compressors/compressors.h"
#include "tests/compressors/guarded_bytes.h"
#include "tests/compressors/samples.h"
#include "tests/compressors/stream_readers.h"

namespace {

using test_support::Bytes;
using test_support::sameBytes;

struct Coder {
    std::string name;
    bool isZLib;
    int level;
};

std::vector<Coder> allCoders() {
    std::vector<Coder> coders;
    for (int level = 0; level <= 9; ++level) {
        coders.push_back({"CMiniZCompressorLevel" + std::to_string(level), false, level});
        coders.push_back({"CZLibCompressorLevel" + std::to_string(level), true, level});
    }
    return coders;
}

class AllLevels : public testing::TestWithParam<Coder> {
protected:
    static yx::P<yx::ISimpleCompressor> makeCompressor() {
        int const level = GetParam().level;
        if (GetParam().isZLib)
            return yx::makeObject<zlu::CZLibCompressor>(level);
        return yx::makeObject<mzu::CMiniZCompressor>(level);
    }

    int compressInto(GuardedBytes const& target, GuardedBytes const& source) {
        return compressor->compressSingleStep(source.data(), source.size(), target.data(),
                                              target.size());
    }

    yx::P<yx::ISimpleCompressor> compressor = makeCompressor();
};

INSTANTIATE_TEST_SUITE_P(, AllLevels, testing::ValuesIn(allCoders()),
                         [](testing::TestParamInfo<Coder> const& coder) {
                             return coder.param.name;
                         });

TEST_P(AllLevels, EveryLibraryReadsTheStreams) {
    for (Sample const& sample : samples()) {
        Bytes const stream = compress(*compressor, sample.bytes);
        for (StreamReader const& reader : streamReaders()) {
            SCOPED_TRACE(reader.name + " reads " + sample.name);
            EXPECT_TRUE(sameBytes(sample.bytes, reader.read(stream, sample.bytes.size())));
        }
    }
}

TEST_P(AllLevels, StaysWithinItsBuffers) {
    for (GuardedBytes::Edge const edge : {GuardedBytes::Edge::Begin, GuardedBytes::Edge::End}) {
        for (Sample const& sample : samples()) {
            SCOPED_TRACE(sample.name);
            GuardedBytes const source(sample.bytes, edge);
            GuardedBytes const target(
                static_cast<std::size_t>(compressor->getCompressedSizeUpperBound(source.size())),
                edge);
            int const streamSizeBytes = compressInto(target, source);
            ASSERT_GT(streamSizeBytes, 0);

            GuardedBytes const stream(target.first(streamSizeBytes), edge);
            GuardedBytes const exactTarget(static_cast<std::size_t>(streamSizeBytes), edge);
            EXPECT_EQ(streamSizeBytes, compressInto(exactTarget, source));
            GuardedBytes const smallTarget(static_cast<std::size_t>(streamSizeBytes) - 1, edge);
            EXPECT_EQ(-1, compressInto(smallTarget, source));

            GuardedBytes const plain(sample.bytes.size(), edge);
            EXPECT_EQ(plain.size(), compressor->decompressSingleStep(stream.data(), stream.size(),
                                                                     plain.data(), plain.size()));
            EXPECT_TRUE(sameBytes(sample.bytes, plain.first(plain.size())));
        }
    }
}

TEST_P(AllLevels, DataThatDoNotShrinkStayBelowTheBoundAndOneByteLessIsRefused) {
    Bytes const bytes = randomBytes(65536, 31);
    int const boundBytes = compressor->getCompressedSizeUpperBound(65536);
    Bytes target(static_cast<std::size_t>(boundBytes));
    int const sizeBytes =
        compressor->compressSingleStep(bytes.data(), 65536, target.data(), boundBytes);
    EXPECT_GT(sizeBytes, 65536);
    EXPECT_LE(sizeBytes, boundBytes);
    EXPECT_EQ(-1, compressor->compressSingleStep(bytes.data(), 65536, target.data(), 65536));
    EXPECT_EQ(-1,
              compressor->compressSingleStep(bytes.data(), 65536, target.data(), sizeBytes - 1));
}

TEST_P(AllLevels, AnObjectWritesTheSameStreamAgainWhateverItWroteBetween) {
    std::vector<Bytes> streams;
    for (Sample const& sample : samples())
        streams.push_back(compress(*compressor, sample.bytes));
    for (std::size_t i = samples().size(); i-- > 0;) {
        SCOPED_TRACE(samples()[i].name);
        EXPECT_TRUE(sameBytes(streams[i], compress(*compressor, samples()[i].bytes)));
    }
}

TEST(StreamReaders, RefuseADamagedStream) {
    mzu::CMiniZCompressor compressor(1);
    Bytes const bytes = test_support::textPattern(1000, 7);
    Bytes stream = compress(compressor, bytes);
    stream.back() ^= 1u;
    for (StreamReader const& reader : streamReaders())
        EXPECT_THROW(reader.read(stream, bytes.size()), std::runtime_error) << reader.name;
}

TEST(MiniZCompressor, UpperBoundIsTheOneOfTheCoderOfAllLevels) {
    // It may not depend on whether a build has ISA-L for level 1.
    for (int const sizeBytes : {0, 1, 512, 65535, 65536, 1048576}) {
        int const boundBytes = mzu::CMiniZCompressor(1).getCompressedSizeUpperBound(sizeBytes);
        EXPECT_EQ(mzu::CMiniZCompressor(6).getCompressedSizeUpperBound(sizeBytes), boundBytes);
        int const storedBlocks = std::max(1, (sizeBytes + 65534) / 65535);
        EXPECT_GE(boundBytes, sizeBytes + 5 * storedBlocks + 6) << sizeBytes;
    }
}

} // namespace

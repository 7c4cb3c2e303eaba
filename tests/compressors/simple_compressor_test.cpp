// What both compressors promise alike, for each of them at several levels.

#include <algorithm>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "compressors/compressors.h"
#include "tests/compressors/samples.h"
#include "tests/support/expect_error.h"
#include "tests/support/reference_codec.h"

namespace {

using test_support::Bytes;
using test_support::compressWithZlib;
using test_support::concat;
using test_support::decompressWithZlib;
using test_support::fromHex;
using test_support::fromText;
using test_support::sameBytes;
using test_support::slice;
using test_support::textPattern;
using test_support::throwsInvalidArg;
using test_support::throwsIOError;
using test_support::zeros;

enum class Kind {
    ZLib,
    MiniZ,
};

yx::P<yx::ISimpleCompressor> makeCompressor(Kind kind, int level) {
    if (kind == Kind::ZLib)
        return yx::makeObject<zlu::CZLibCompressor>(level);
    return yx::makeObject<mzu::CMiniZCompressor>(level);
}

std::string className(Kind kind) {
    return kind == Kind::ZLib ? "CZLibCompressor" : "CMiniZCompressor";
}

char const* const kCorruptMessage =
    "Compressed data is corrupt, incomplete or larger than its target.";

/// Whether decompressing into `roomBytes` bytes fails as damaged data does.
testing::AssertionResult failsToDecompress(yx::ISimpleCompressor& compressor, Bytes const& stream,
                                           std::size_t roomBytes) {
    return throwsIOError(
        yx::CIOError::CorruptData, kCorruptMessage,
        {{"sourceSize", std::to_string(stream.size())}, {"targetSize", std::to_string(roomBytes)}},
        [&] { decompress(compressor, stream, roomBytes); });
}

struct Param {
    Kind kind;
    int level;
};

class SimpleCompressor : public testing::TestWithParam<Param> {
protected:
    yx::P<yx::ISimpleCompressor> makeOther() const {
        return makeCompressor(GetParam().kind, GetParam().level);
    }

    yx::P<yx::ISimpleCompressor> compressor = makeOther();
    std::string name = className(GetParam().kind);
};

INSTANTIATE_TEST_SUITE_P(, SimpleCompressor,
                         testing::Values(Param{Kind::ZLib, 0}, Param{Kind::ZLib, 1},
                                         Param{Kind::ZLib, 6}, Param{Kind::ZLib, 9},
                                         Param{Kind::MiniZ, 0}, Param{Kind::MiniZ, 1},
                                         Param{Kind::MiniZ, 6}, Param{Kind::MiniZ, 9}),
                         [](testing::TestParamInfo<Param> const& param) {
                             return className(param.param.kind) + "Level" +
                                    std::to_string(param.param.level);
                         });

TEST_P(SimpleCompressor, WritesStreamsThatZlibReads) {
    for (Sample const& sample : samples()) {
        SCOPED_TRACE(sample.name);
        Bytes const stream = compress(*compressor, sample.bytes);
        EXPECT_TRUE(sameBytes(
            sample.bytes, decompressWithZlib(stream, static_cast<int>(sample.bytes.size()) + 1)));
    }
}

TEST_P(SimpleCompressor, WritesStreamsThatBothCompressorsRead) {
    for (Kind const reader : {Kind::ZLib, Kind::MiniZ}) {
        yx::P<yx::ISimpleCompressor> const decompressor = makeCompressor(reader, 1);
        for (Sample const& sample : samples()) {
            SCOPED_TRACE(className(reader) + " reads " + sample.name);
            Bytes const stream = compress(*compressor, sample.bytes);
            EXPECT_TRUE(
                sameBytes(sample.bytes, decompress(*decompressor, stream, sample.bytes.size())));
            EXPECT_TRUE(sameBytes(sample.bytes,
                                  decompress(*decompressor, stream, sample.bytes.size() + 500)));
        }
    }
}

TEST_P(SimpleCompressor, ReadsWhatZlibWrites) {
    for (int const level : {0, 1, 6, 9}) {
        for (Sample const& sample : samples()) {
            SCOPED_TRACE(sample.name + " at level " + std::to_string(level));
            Bytes const stream = compressWithZlib(sample.bytes, level);
            EXPECT_TRUE(
                sameBytes(sample.bytes, decompress(*compressor, stream, sample.bytes.size())));
        }
    }
}

TEST_P(SimpleCompressor, ReadsALiteralStream) {
    // "hello" in one block of fixed codes.
    EXPECT_TRUE(sameBytes(fromText("hello"),
                          decompress(*compressor, fromHex("789c cb48cdc9c90700 062c0215"), 5)));
}

TEST_P(SimpleCompressor, EmptyDataIsAStreamOfItsOwn) {
    Bytes stream(100);
    int const sizeBytes = compressor->compressSingleStep(nullptr, 0, stream.data(), 100);
    ASSERT_GT(sizeBytes, 0);
    stream.resize(static_cast<std::size_t>(sizeBytes));
    EXPECT_EQ(decompressWithZlib(stream, 1), Bytes());

    unsigned char target = 0xee;
    EXPECT_EQ(compressor->decompressSingleStep(stream.data(), sizeBytes, &target, 1), 0);
    EXPECT_EQ(target, 0xee);
    EXPECT_EQ(compressor->decompressSingleStep(stream.data(), sizeBytes, nullptr, 0), 0);
}

TEST_P(SimpleCompressor, ATargetOfTheExactSizeDoesAndOneByteLessGivesMinusOne) {
    for (Sample const& sample : samples()) {
        SCOPED_TRACE(sample.name);
        Bytes const stream = compress(*compressor, sample.bytes);
        int const sourceSizeBytes = static_cast<int>(sample.bytes.size());
        int const streamSizeBytes = static_cast<int>(stream.size());

        Bytes target(stream.size());
        EXPECT_EQ(compressor->compressSingleStep(sample.bytes.data(), sourceSizeBytes,
                                                 target.data(), streamSizeBytes),
                  streamSizeBytes);
        EXPECT_TRUE(sameBytes(stream, target));

        Bytes smaller(stream.size() - 1);
        EXPECT_EQ(compressor->compressSingleStep(sample.bytes.data(), sourceSizeBytes,
                                                 smaller.data(), streamSizeBytes - 1),
                  -1);
    }
}

TEST_P(SimpleCompressor, EveryTargetThatIsTooSmallGivesMinusOne) {
    Bytes const bytes = textPattern(300, 7);
    Bytes const stream = compress(*compressor, bytes);
    EXPECT_EQ(compressor->compressSingleStep(bytes.data(), 300, nullptr, 0), -1);
    for (std::size_t roomBytes = 1; roomBytes < stream.size(); ++roomBytes) {
        Bytes target(roomBytes);
        EXPECT_EQ(compressor->compressSingleStep(bytes.data(), 300, target.data(),
                                                 static_cast<int>(roomBytes)),
                  -1)
            << roomBytes;
    }
    EXPECT_TRUE(sameBytes(stream, compress(*compressor, bytes)));
}

TEST_P(SimpleCompressor, BytesBehindTheResultAndItsTargetStayAlone) {
    Bytes const bytes = textPattern(1000, 7);
    Bytes const stream = compressWithZlib(bytes, 6);
    Bytes target(1200, 0xee);
    EXPECT_EQ(compressor->decompressSingleStep(stream.data(), static_cast<int>(stream.size()),
                                               target.data(), 1000),
              1000);
    EXPECT_TRUE(sameBytes(bytes, Bytes(target.begin(), target.begin() + 1000)));
    EXPECT_TRUE(sameBytes(Bytes(200, 0xee), Bytes(target.begin() + 1000, target.end())));
}

TEST_P(SimpleCompressor, EveryCallIsIndependentOfTheOnesBefore) {
    Bytes const text = textPattern(65536, 7);
    Bytes const random = randomBytes(65536, 3);
    Bytes const firstStream = compress(*compressor, text);
    Bytes damaged = firstStream;
    damaged.resize(damaged.size() / 2);
    Bytes tiny(10);
    for (int i = 0; i < 3; ++i) {
        compress(*compressor, random);
        EXPECT_TRUE(sameBytes(firstStream, compress(*compressor, text)));
        EXPECT_EQ(compressor->compressSingleStep(text.data(), 65536, tiny.data(), 10), -1);
        EXPECT_TRUE(sameBytes(firstStream, compress(*compressor, text)));

        EXPECT_TRUE(sameBytes(text, decompress(*compressor, firstStream, 65536)));
        EXPECT_TRUE(failsToDecompress(*compressor, damaged, 65536));
        EXPECT_TRUE(failsToDecompress(*compressor, firstStream, 100));
        EXPECT_TRUE(sameBytes(text, decompress(*compressor, firstStream, 65536)));
    }
}

TEST_P(SimpleCompressor, BytesBehindTheStreamAreIgnored) {
    for (Sample const& sample : samples()) {
        Bytes const stream = compress(*compressor, sample.bytes);
        for (Bytes const& trail :
             {zeros(1), zeros(500), randomBytes(4, 5), randomBytes(500, 5), stream}) {
            SCOPED_TRACE(sample.name + " and " + std::to_string(trail.size()));
            Bytes const longer = concat({stream, trail});
            EXPECT_TRUE(
                sameBytes(sample.bytes, decompress(*compressor, longer, sample.bytes.size())));
        }
    }
}

TEST_P(SimpleCompressor, AStreamThatOverflowsItsTargetIsCorrupt) {
    for (Sample const& sample : samples()) {
        if (sample.bytes.empty())
            continue;
        SCOPED_TRACE(sample.name);
        Bytes const stream = compress(*compressor, sample.bytes);
        EXPECT_TRUE(failsToDecompress(*compressor, stream, sample.bytes.size() - 1));
        EXPECT_TRUE(failsToDecompress(*compressor, stream, 0));
    }
}

TEST_P(SimpleCompressor, EveryTruncationIsCorrupt) {
    for (Bytes const& bytes : {Bytes(), textPattern(700, 7), zeros(3000), randomBytes(200, 9)}) {
        Bytes const stream = compress(*compressor, bytes);
        for (std::size_t lengthBytes = 0; lengthBytes < stream.size(); ++lengthBytes) {
            SCOPED_TRACE(lengthBytes);
            Bytes const part = slice(stream, 0, lengthBytes);
            EXPECT_TRUE(failsToDecompress(*compressor, part, bytes.size() + 100));
            EXPECT_TRUE(failsToDecompress(*compressor, part, bytes.size()));
        }
    }
}

TEST_P(SimpleCompressor, AFlippedBitIsCorruptOrDoesNoHarm) {
    constexpr unsigned int kSeed = 20240611;
    SCOPED_TRACE("seed " + std::to_string(kSeed));
    std::mt19937 random(kSeed);
    Bytes const bytes = textPattern(5000, 7);
    Bytes const stream = compress(*compressor, bytes);
    int corrupt = 0;
    for (int i = 0; i < 1500; ++i) {
        Bytes flipped = stream;
        std::size_t const bit = random() % (8 * flipped.size());
        flipped[bit / 8] ^= static_cast<unsigned char>(1u << (bit % 8));
        try {
            // The bits between the last block and the checksum mean nothing.
            EXPECT_TRUE(sameBytes(bytes, decompress(*compressor, flipped, bytes.size())))
                << "bit " << bit;
        } catch (yx::CIOError const& error) {
            ++corrupt;
            EXPECT_EQ(error.getIOCode(), yx::CIOError::CorruptData);
        }
    }
    EXPECT_GT(corrupt, 1450);
}

TEST_P(SimpleCompressor, EveryFlippedBitOfTheHeaderAndTheChecksumIsCorrupt) {
    Bytes const bytes = textPattern(500, 7);
    Bytes const stream = compress(*compressor, bytes);
    std::vector<std::size_t> places = {0, 1};
    for (std::size_t i = 1; i <= 4; ++i)
        places.push_back(stream.size() - i);
    for (std::size_t const place : places) {
        for (unsigned int bit = 0; bit < 8; ++bit) {
            Bytes flipped = stream;
            flipped[place] ^= static_cast<unsigned char>(1u << bit);
            EXPECT_TRUE(failsToDecompress(*compressor, flipped, 500))
                << "byte " << place << ", bit " << bit;
        }
    }
}

TEST_P(SimpleCompressor, RandomBytesAreNoStream) {
    for (unsigned int seed = 0; seed < 300; ++seed) {
        Bytes stream = randomBytes(200, seed);
        EXPECT_TRUE(failsToDecompress(*compressor, stream, 65536)) << seed;
        // A good header gets the decoder as far as the blocks.
        stream[0] = 0x78;
        stream[1] = 0x9c;
        EXPECT_TRUE(failsToDecompress(*compressor, stream, 65536)) << seed;
    }
}

TEST_P(SimpleCompressor, OtherFormatsAreCorrupt) {
    // "hello" as a bare deflate stream, as a gzip file, and in a zlib stream with a preset
    // dictionary.
    Bytes const streams[] = {
        fromHex("cb48cdc9c90700"),
        fromHex("1f8b0800000000000003 cb48cdc9c90700 86a61036 05000000"),
        fromHex("78bb 062c0215 cb48cdc9c90700 062c0215"),
    };
    for (Bytes const& stream : streams)
        EXPECT_TRUE(failsToDecompress(*compressor, stream, 100));
}

TEST_P(SimpleCompressor, TheUpperBoundHoldsForData) {
    constexpr unsigned int kSeed = 99;
    SCOPED_TRACE("seed " + std::to_string(kSeed));
    std::mt19937 random(kSeed);
    for (int i = 0; i < 60; ++i) {
        // Random data and its mixtures with repetitions, which make coders end blocks early.
        std::size_t const sizeBytes = random() % (i % 4 == 0 ? 300000 : 3000);
        Bytes bytes = randomBytes(sizeBytes, static_cast<unsigned int>(random()));
        std::size_t const stride = 1 + random() % 2000;
        for (std::size_t pos = 0; i % 2 == 0 && pos + stride / 2 < sizeBytes; pos += stride)
            std::fill_n(bytes.begin() + static_cast<std::ptrdiff_t>(pos), stride / 2,
                        static_cast<unsigned char>(i));
        SCOPED_TRACE(sizeBytes);
        EXPECT_TRUE(sameBytes(bytes, decompressWithZlib(compress(*compressor, bytes),
                                                        static_cast<int>(sizeBytes) + 1)));
    }
}

TEST_P(SimpleCompressor, TheUpperBoundIsTheSameAtEveryLevelAndAfterUse) {
    int const boundBytes = compressor->getCompressedSizeUpperBound(65536);
    EXPECT_EQ(boundBytes, makeCompressor(GetParam().kind, 5)->getCompressedSizeUpperBound(65536));
    compress(*compressor, textPattern(65536, 7));
    EXPECT_EQ(boundBytes, compressor->getCompressedSizeUpperBound(65536));
}

TEST_P(SimpleCompressor, SizesWithoutAnUpperBoundAreRefused) {
    std::string const function = name + "::getCompressedSizeUpperBound";
    EXPECT_TRUE(throwsInvalidArg(function, "Invalid source size: -1 bytes",
                                 [&] { compressor->getCompressedSizeUpperBound(-1); }));
    EXPECT_TRUE(throwsInvalidArg(function, "Source is too large to compress: 2147483647 bytes",
                                 [&] { compressor->getCompressedSizeUpperBound(2147483647); }));
    EXPECT_GT(compressor->getCompressedSizeUpperBound(1 << 30), 1 << 30);
}

TEST_P(SimpleCompressor, BadArgumentsAreRefused) {
    struct Case {
        bool hasSource;
        int sourceSizeBytes;
        bool hasTarget;
        int targetSizeBytes;
        char const* message;
    };
    Case const cases[] = {
        {true, -1, true, 10, "Invalid source size: -1 bytes"},
        {true, 10, true, -2, "Invalid target size: -2 bytes"},
        {false, 10, true, 10, "No source"},
        {true, 10, false, 10, "No target"},
    };
    unsigned char bytes[20] = {};
    for (Case const& c : cases) {
        SCOPED_TRACE(c.message);
        void const* const source = c.hasSource ? bytes : nullptr;
        void* const target = c.hasTarget ? bytes + 10 : nullptr;
        EXPECT_TRUE(throwsInvalidArg(name + "::compressSingleStep", c.message, [&] {
            compressor->compressSingleStep(source, c.sourceSizeBytes, target, c.targetSizeBytes);
        }));
        EXPECT_TRUE(throwsInvalidArg(name + "::decompressSingleStep", c.message, [&] {
            compressor->decompressSingleStep(source, c.sourceSizeBytes, target, c.targetSizeBytes);
        }));
    }
}

TEST_P(SimpleCompressor, SeveralThreadsMayUseAnObjectEach) {
    Bytes const bytes = textPattern(20000, 7);
    Bytes const stream = compress(*compressor, bytes);
    std::vector<std::thread> threads;
    std::vector<int> good(4, 0);
    for (int& count : good) {
        threads.emplace_back([&bytes, &stream, &count, each = makeOther()] {
            for (int i = 0; i < 10; ++i)
                count += decompress(*each, compress(*each, bytes), 20000) == bytes &&
                         decompress(*each, stream, 20000) == bytes;
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(good, (std::vector<int>{10, 10, 10, 10}));
}

class CompressorKind : public testing::TestWithParam<Kind> {};

INSTANTIATE_TEST_SUITE_P(, CompressorKind, testing::Values(Kind::ZLib, Kind::MiniZ),
                         [](testing::TestParamInfo<Kind> const& kind) {
                             return className(kind.param);
                         });

TEST_P(CompressorKind, LevelZeroStores) {
    Bytes const bytes = zeros(65536);
    EXPECT_GT(compress(*makeCompressor(GetParam(), 0), bytes).size(), bytes.size());
}

TEST_P(CompressorKind, HigherLevelsCompressBetter) {
    Bytes const bytes = textPattern(65536, 7);
    std::size_t const atLevel0 = compress(*makeCompressor(GetParam(), 0), bytes).size();
    std::size_t const atLevel1 = compress(*makeCompressor(GetParam(), 1), bytes).size();
    std::size_t const atLevel9 = compress(*makeCompressor(GetParam(), 9), bytes).size();
    EXPECT_LT(atLevel1, atLevel0 / 2);
    EXPECT_LT(atLevel9, atLevel1);
}

TEST_P(CompressorKind, LevelsBelowZeroAreTheDefaultAndLevelsAboveNineAreNine) {
    Bytes const bytes = textPattern(65536, 7);
    Bytes const atLevel6 = compress(*makeCompressor(GetParam(), 6), bytes);
    Bytes const atLevel9 = compress(*makeCompressor(GetParam(), 9), bytes);
    ASSERT_FALSE(atLevel6 == atLevel9);
    EXPECT_TRUE(sameBytes(atLevel6, compress(*makeCompressor(GetParam(), -1), bytes)));
    EXPECT_TRUE(sameBytes(atLevel6, compress(*makeCompressor(GetParam(), -2147483647 - 1), bytes)));
    EXPECT_TRUE(sameBytes(atLevel9, compress(*makeCompressor(GetParam(), 10), bytes)));
    EXPECT_TRUE(sameBytes(atLevel9, compress(*makeCompressor(GetParam(), 2147483647), bytes)));
}

TEST(ZLibCompressor, NamesItself) {
    EXPECT_EQ(zlu::CZLibCompressor(6).getInternalDesc(), "zlib");
}

TEST(ZLibCompressor, WritesWhatZlibWrites) {
    for (int const level : {0, 1, 6, 9}) {
        zlu::CZLibCompressor compressor(level);
        for (Sample const& sample : samples()) {
            SCOPED_TRACE(sample.name + " at level " + std::to_string(level));
            EXPECT_TRUE(sameBytes(compressWithZlib(sample.bytes, level),
                                  compress(compressor, sample.bytes)));
        }
    }
}

TEST(ZLibCompressor, LevelZeroWritesStoredBlocks) {
    zlu::CZLibCompressor compressor(0);
    EXPECT_EQ(
        compress(compressor, {'a', 'b', 'c'}),
        (Bytes{0x78, 0x01, 0x01, 0x03, 0x00, 0xfc, 0xff, 'a', 'b', 'c', 0x02, 0x4d, 0x01, 0x27}));

    // A block holds at most 65535 bytes, so there are two of 5 bytes more each, and 6 around them.
    EXPECT_EQ(compress(compressor, zeros(65536)).size(), 65552u);
}

TEST(ZLibCompressor, UpperBoundsOfGrainSizes) {
    zlu::CZLibCompressor const compressor(0);
    EXPECT_EQ(compressor.getCompressedSizeUpperBound(0), 13);
    EXPECT_EQ(compressor.getCompressedSizeUpperBound(512), 525);
    EXPECT_EQ(compressor.getCompressedSizeUpperBound(4096), 4110);
    EXPECT_EQ(compressor.getCompressedSizeUpperBound(65536), 65569);
    EXPECT_EQ(compressor.getCompressedSizeUpperBound(1048576), 1048909);
}

TEST(MiniZCompressor, NamesItself) {
    EXPECT_EQ(mzu::CMiniZCompressor(1).getInternalDesc(), "miniz");
}

TEST(MiniZCompressor, ReadsAStoredStreamOfTheZLibCompressor) {
    zlu::CZLibCompressor storing(0);
    mzu::CMiniZCompressor reading(1);
    for (Sample const& sample : samples()) {
        SCOPED_TRACE(sample.name);
        Bytes const stream = compress(storing, sample.bytes);
        EXPECT_TRUE(sameBytes(sample.bytes, decompress(reading, stream, sample.bytes.size())));
    }
}

} // namespace

#include "kelm/graindata/compressor.h"

#include <gtest/gtest.h>

#include "tests/support/grain_contents.h"
#include "tests/support/reference_codec.h"

namespace kelm {

namespace {

using test_support::Bytes;

constexpr std::size_t kGrainSizeBytes = 65536;

/// What the compressor makes of `plain` when it has as much room as it may need.
Bytes compress(CVMDKCompressor& compressor, Bytes const& plain) {
    int const plainSizeBytes = static_cast<int>(plain.size());
    Bytes stream(static_cast<std::size_t>(compressor.getCompressedSizeUpperBound(plainSizeBytes)));
    int const sizeBytes = compressor.compressSingleStep(plain.data(), plainSizeBytes, stream.data(),
                                                        static_cast<int>(stream.size()));
    EXPECT_GE(sizeBytes, 0);
    stream.resize(static_cast<std::size_t>(sizeBytes));
    return stream;
}

Bytes decompress(CVMDKCompressor& compressor, Bytes const& stream, std::size_t maxSizeBytes) {
    Bytes plain(maxSizeBytes);
    int const sizeBytes =
        compressor.decompressSingleStep(stream.data(), static_cast<int>(stream.size()),
                                        plain.data(), static_cast<int>(maxSizeBytes));
    plain.resize(static_cast<std::size_t>(sizeBytes));
    return plain;
}

TEST(Compressor, NameSaysWhichCoderIsTriedFirst) {
    struct {
        int level;
        char const* name;
    } const cases[] = {{-1, "smart-miniz"},
                       {0, "smart-zlib"},
                       {1, "smart-miniz"},
                       {6, "smart-miniz"},
                       {9, "smart-miniz"}};
    for (auto const& [level, name] : cases)
        EXPECT_EQ(CVMDKCompressor(level).getInternalDesc(), name) << level;
}

TEST(Compressor, DefaultLevelIsOne) {
    Bytes const plain = test_support::textPattern(kGrainSizeBytes, 1);
    CVMDKCompressor byDefault;
    CVMDKCompressor minusOne(-1);
    CVMDKCompressor one(1);
    CVMDKCompressor nine(9);
    EXPECT_EQ(compress(byDefault, plain), compress(one, plain));
    EXPECT_EQ(compress(minusOne, plain), compress(one, plain));
    EXPECT_NE(compress(nine, plain), compress(one, plain));
}

TEST(Compressor, UpperBoundFillsARecordToTheSectorAndIsTheSameForEveryLevel) {
    struct {
        int sourceSize;
        int bound;
    } const cases[] = {
        {0, 500},           {1, 500},           {487, 500},  {488, 501}, // too tight for the header
        {499, 512},         {500, 1012},        {512, 1012}, {4096, 4596},
        {65536, 66036},     {1605632, 1606135}, // too tight again
        {1048576, 1049076},
    };
    for (int const level : {-1, 0, 1, 6, 9}) {
        CVMDKCompressor const compressor(level);
        for (auto const& [sourceSize, bound] : cases)
            EXPECT_EQ(compressor.getCompressedSizeUpperBound(sourceSize), bound) << sourceSize;
    }
}

TEST(Compressor, OtherSoftwareReadsWhatEveryLevelWrites) {
    for (int const level : {-1, 0, 1, 6, 9}) {
        CVMDKCompressor compressor(level);
        for (Bytes const& plain : {Bytes(), Bytes{42}, test_support::zeros(kGrainSizeBytes),
                                   test_support::textPattern(kGrainSizeBytes, 2),
                                   test_support::pattern(kGrainSizeBytes, 3),
                                   test_support::sparse(kGrainSizeBytes, 4)}) {
            Bytes const stream = compress(compressor, plain);
            EXPECT_EQ(test_support::decompressWithZlib(stream, kGrainSizeBytes), plain) << level;
            EXPECT_EQ(decompress(compressor, stream, kGrainSizeBytes), plain) << level;
        }
        EXPECT_EQ(compressor.getCompressFallbackCount(), 0);
    }
}

TEST(Compressor, EveryLevelReadsWhatEveryLevelOfOtherSoftwareWrites) {
    Bytes const plain = test_support::textPattern(kGrainSizeBytes, 5);
    for (int const level : {0, 1, 9}) {
        CVMDKCompressor compressor(level);
        for (int const otherLevel : {0, 1, 6, 9})
            EXPECT_EQ(decompress(compressor, test_support::compressWithZlib(plain, otherLevel),
                                 kGrainSizeBytes),
                      plain);
    }
}

TEST(Compressor, DataThatGrowWithinTheBoundAreTakenFromTheFirstCoder) {
    CVMDKCompressor compressor(1);
    Bytes const plain = test_support::pattern(kGrainSizeBytes, 6);
    EXPECT_GT(compress(compressor, plain).size(), plain.size());
    EXPECT_EQ(compressor.getCompressFallbackCount(), 0);
}

TEST(Compressor, FailureOfTheFirstCoderIsCountedAndLeftToTheFallback) {
    Bytes const plain = test_support::pattern(1000, 7);
    for (int const level : {0, 1}) {
        CVMDKCompressor compressor(level);
        Bytes target(100);
        EXPECT_EQ(compressor.compressSingleStep(plain.data(), 1000, target.data(), 100), -1);
        EXPECT_EQ(compressor.getCompressFallbackCount(), 1);
        EXPECT_EQ(compressor.compressSingleStep(plain.data(), 1000, target.data(), 100), -1);
        EXPECT_EQ(compressor.getCompressFallbackCount(), 2);
    }
}

TEST(Compressor, ResultsThatJustFitTheTargetAreWholeWhicheverCoderMakesThem) {
    // A stored stream of 1000 bytes takes 11 more. The first coder may want room to spare.
    Bytes const plain = test_support::pattern(1000, 8);
    CVMDKCompressor compressor(1);
    Bytes stream(1011);
    EXPECT_EQ(compressor.compressSingleStep(plain.data(), 1000, stream.data(), 1011), 1011);
    EXPECT_EQ(test_support::decompressWithZlib(stream, 1000), plain);
    EXPECT_LE(compressor.getCompressFallbackCount(), 1);
}

TEST(Compressor, DamagedDataAreCorruptData) {
    Bytes stream = test_support::compressWithZlib(test_support::textPattern(5000, 9), 6);
    stream.back() ^= 1;
    for (int const level : {0, 1}) {
        CVMDKCompressor compressor(level);
        EXPECT_TRUE(
            test_support::reportsCorruptData([&] { decompress(compressor, stream, 5000); }));
        EXPECT_EQ(compressor.getCompressFallbackCount(), 0);
    }
}

TEST(Compressor, IsASimpleCompressor) {
    yx::P<yx::ISimpleCompressor> const compressor = yx::makeObject<CVMDKCompressor>(0);
    EXPECT_EQ(compressor->getInternalDesc(), "smart-zlib");
    EXPECT_EQ(compressor->getCompressedSizeUpperBound(65536), 66036);
}

} // namespace

} // namespace kelm

#include "tests/compressors/samples.h"

#include <random>

#include <gtest/gtest.h>

using test_support::Bytes;

std::vector<Sample> const& samples() {
    static std::vector<Sample> const all = [] {
        std::vector<Sample> made;
        for (std::size_t const sizeBytes :
             std::initializer_list<std::size_t>{0, 1, 2, 100, 512, 32769, 65535, 65536, 65537}) {
            std::string const size = " of " + std::to_string(sizeBytes) + " bytes";
            made.push_back({"zeros" + size, test_support::zeros(sizeBytes)});
            made.push_back({"text" + size, test_support::textPattern(sizeBytes, 7)});
            made.push_back({"random data" + size, randomBytes(sizeBytes, 11)});
        }
        return made;
    }();
    return all;
}

Bytes randomBytes(std::size_t sizeBytes, unsigned int seed) {
    std::mt19937 random(seed);
    Bytes bytes(sizeBytes);
    for (unsigned char& byte : bytes)
        byte = static_cast<unsigned char>(random());
    return bytes;
}

Bytes compress(yx::ISimpleCompressor& compressor, Bytes const& bytes) {
    int const sourceSizeBytes = static_cast<int>(bytes.size());
    int const boundBytes = compressor.getCompressedSizeUpperBound(sourceSizeBytes);
    Bytes stream(static_cast<std::size_t>(boundBytes));
    int const sizeBytes =
        compressor.compressSingleStep(bytes.data(), sourceSizeBytes, stream.data(), boundBytes);
    EXPECT_GT(sizeBytes, 0);
    EXPECT_LE(sizeBytes, boundBytes);
    stream.resize(sizeBytes > 0 ? static_cast<std::size_t>(sizeBytes) : 0);
    return stream;
}

Bytes decompress(yx::ISimpleCompressor& compressor, Bytes const& stream, std::size_t roomBytes) {
    Bytes bytes(roomBytes);
    int const sizeBytes = compressor.decompressSingleStep(
        stream.data(), static_cast<int>(stream.size()), bytes.data(), static_cast<int>(roomBytes));
    EXPECT_GE(sizeBytes, 0);
    EXPECT_LE(static_cast<std::size_t>(sizeBytes), roomBytes);
    bytes.resize(static_cast<std::size_t>(sizeBytes));
    return bytes;
}

#pragma once

#include <string>
#include <vector>

#include "tests/support/bytes.h"
#include "yx/simple_compressor.h"

/// Data to compress, with a name for messages.
struct Sample {
    std::string name;
    test_support::Bytes bytes;
};

/// Zeros, text and random bytes of the sizes around which coders behave differently: none, one
/// byte, a few, a stored block and a grain, and a byte less and more.
std::vector<Sample> const& samples();

/// Random bytes of all values; the same for the same seed.
test_support::Bytes randomBytes(std::size_t sizeBytes, unsigned int seed);

/// Compresses into a target of the upper bound; fails the test if that does not do.
test_support::Bytes compress(yx::ISimpleCompressor& compressor, test_support::Bytes const& bytes);

/// Decompresses into a target of `roomBytes` bytes.
test_support::Bytes decompress(yx::ISimpleCompressor& compressor, test_support::Bytes const& stream,
                               std::size_t roomBytes);

#pragma once

#include <vector>

namespace test_support {

// What other software makes of the bytes that the library stores: zlib and OpenSSL, called
// directly. Each of these throws `std::runtime_error` on what it cannot do.

/// A zlib stream of `plain`.
std::vector<unsigned char> compressWithZlib(std::vector<unsigned char> const& plain, int level);

/// What a zlib stream holds, at most `maxSizeBytes`. All of `stream` must belong to it.
std::vector<unsigned char> decompressWithZlib(std::vector<unsigned char> const& stream,
                                              int maxSizeBytes);

/// AES-256 in CBC mode without padding, for whole blocks.
std::vector<unsigned char> encipherWithOpenSSL(std::vector<unsigned char> const& plain,
                                               std::vector<unsigned char> const& key,
                                               std::vector<unsigned char> const& iv);
std::vector<unsigned char> decipherWithOpenSSL(std::vector<unsigned char> const& enciphered,
                                               std::vector<unsigned char> const& key,
                                               std::vector<unsigned char> const& iv);

} // namespace test_support

#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

#include "yx/buffer.h"
#include "yx/file_system.h"

namespace test_support {

/// Bytes as tests handle them; `toBuffer` and `toBytes` go to the framework's buffers and back.
using Bytes = std::vector<unsigned char>;
using Buffer = yx::TBuffer<unsigned char>;

Buffer toBuffer(Bytes const& bytes);
Bytes toBytes(Buffer const& buffer);

/// From pairs of hexadecimal digits; white space between pairs is skipped: "4B 44 4D 56 01000000".
/// Anything else throws `std::invalid_argument`.
Bytes fromHex(std::string_view hex);

/// The characters of `text`, without a zero at the end.
Bytes fromText(std::string_view text);
std::string toText(Bytes const& bytes);

Bytes zeros(std::size_t sizeBytes);

/// Bytes that look random and follow from `seed` alone; never a zero byte, so that a lost byte
/// shows. They do not compress.
Bytes pattern(std::size_t sizeBytes, unsigned int seed);

/// Readable, compressible bytes that follow from `seed` alone.
Bytes textPattern(std::size_t sizeBytes, unsigned int seed);

/// The parts one behind the other.
Bytes concat(std::initializer_list<Bytes> parts);

/// `count` bytes from `offset` on; what lies past the end is left out.
Bytes slice(Bytes const& bytes, std::size_t offset, std::size_t count);

/// Lines of offset, 16 bytes in hexadecimal, and text.
std::string hexDump(Bytes const& bytes, std::size_t firstOffset = 0);

/// Whether the bytes are the same; if not, shows sizes, the first difference and both sides around
/// it. For `EXPECT_TRUE`.
testing::AssertionResult sameBytes(Bytes const& expected, Bytes const& actual);
testing::AssertionResult sameBytes(Buffer const& expected, Buffer const& actual);
testing::AssertionResult sameBytes(Bytes const& expected, Buffer const& actual);

/// The whole content of a file, read through its own new stream.
Bytes readFile(yx::IFileSystem& fileSystem, yx::CURI const& uri);

/// Makes or replaces the content of a file.
void writeFile(yx::IFileSystem& fileSystem, yx::CURI const& uri, Bytes const& content);

/// `count` bytes at `position`; fewer at the end. The stream's position moves.
Bytes readAt(yx::IInStream& stream, long long position, std::size_t count);

/// The stream's position moves.
void writeAt(yx::IOutStream& stream, long long position, Bytes const& content);

} // namespace test_support

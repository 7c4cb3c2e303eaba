#include "tests/support/bytes.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <random>
#include <stdexcept>

#include "yx/memory.h"

namespace test_support {

namespace {

constexpr std::size_t kDumpLineBytes = 16;
constexpr std::size_t kContextLines = 2;

std::string describeDifference(Bytes const& bytes, std::size_t offset) {
    std::size_t const line = offset / kDumpLineBytes;
    std::size_t const firstLine = line < kContextLines ? 0 : line - kContextLines;
    std::size_t const begin = firstLine * kDumpLineBytes;
    return hexDump(slice(bytes, begin, (2 * kContextLines + 1) * kDumpLineBytes), begin);
}

} // namespace

Buffer toBuffer(Bytes const& bytes) {
    Buffer buffer(static_cast<int>(bytes.size()), -1);
    yx::copyMemory(buffer.getData(), bytes.data(), bytes.size());
    return buffer;
}

Bytes toBytes(Buffer const& buffer) {
    if (buffer.getUsed() == 0)
        return {};
    return {buffer.getData(), buffer.getData() + buffer.getUsed()};
}

Bytes fromHex(std::string_view hex) {
    Bytes bytes;
    for (std::size_t i = 0; i < hex.size();) {
        auto const isHexAt = [&](std::size_t index) {
            return index < hex.size() && std::isxdigit(static_cast<unsigned char>(hex[index]));
        };
        if (std::isspace(static_cast<unsigned char>(hex[i]))) {
            ++i;
            continue;
        }
        if (!isHexAt(i) || !isHexAt(i + 1))
            throw std::invalid_argument("not hexadecimal: " + std::string(hex));
        bytes.push_back(
            static_cast<unsigned char>(std::stoi(std::string(hex.substr(i, 2)), nullptr, 16)));
        i += 2;
    }
    return bytes;
}

Bytes fromText(std::string_view text) {
    return {text.begin(), text.end()};
}

std::string toText(Bytes const& bytes) {
    return {bytes.begin(), bytes.end()};
}

Bytes zeros(std::size_t sizeBytes) {
    return Bytes(sizeBytes);
}

Bytes pattern(std::size_t sizeBytes, unsigned int seed) {
    std::mt19937 generator(seed);
    Bytes bytes(sizeBytes);
    for (unsigned char& byte : bytes)
        byte = static_cast<unsigned char>(1 + generator() % 255);
    return bytes;
}

Bytes textPattern(std::size_t sizeBytes, unsigned int seed) {
    static constexpr std::string_view kWords[] = {"grain ",  "table ",  "sector ", "disk ",
                                                  "extent ", "header ", "marker ", "entry "};
    std::mt19937 generator(seed);
    std::string text;
    while (text.size() < sizeBytes)
        text += kWords[generator() % std::size(kWords)];
    text.resize(sizeBytes);
    return fromText(text);
}

Bytes concat(std::initializer_list<Bytes> parts) {
    Bytes all;
    for (Bytes const& part : parts)
        all.insert(all.end(), part.begin(), part.end());
    return all;
}

Bytes slice(Bytes const& bytes, std::size_t offset, std::size_t count) {
    std::size_t const begin = std::min(offset, bytes.size());
    std::size_t const end = begin + std::min(count, bytes.size() - begin);
    return {bytes.begin() + static_cast<std::ptrdiff_t>(begin),
            bytes.begin() + static_cast<std::ptrdiff_t>(end)};
}

std::string hexDump(Bytes const& bytes, std::size_t firstOffset) {
    std::string dump;
    for (std::size_t line = 0; line < bytes.size(); line += kDumpLineBytes) {
        char text[32];
        std::snprintf(text, sizeof text, "%08zx ", firstOffset + line);
        dump += text;
        std::string characters;
        for (std::size_t i = line; i < line + kDumpLineBytes; ++i) {
            if (i >= bytes.size()) {
                dump += "   ";
                continue;
            }
            std::snprintf(text, sizeof text, " %02x", bytes[i]);
            dump += text;
            characters += std::isprint(bytes[i]) ? static_cast<char>(bytes[i]) : '.';
        }
        dump += "  " + characters + "\n";
    }
    return dump;
}

testing::AssertionResult sameBytes(Bytes const& expected, Bytes const& actual) {
    if (expected == actual)
        return testing::AssertionSuccess();
    auto const difference =
        std::mismatch(expected.begin(), expected.end(), actual.begin(), actual.end());
    auto const offset = static_cast<std::size_t>(difference.first - expected.begin());
    return testing::AssertionFailure()
           << "expected " << expected.size() << " bytes, got " << actual.size()
           << "; first difference at " << offset << "\nexpected:\n"
           << describeDifference(expected, offset) << "actual:\n"
           << describeDifference(actual, offset);
}

testing::AssertionResult sameBytes(Buffer const& expected, Buffer const& actual) {
    return sameBytes(toBytes(expected), toBytes(actual));
}

testing::AssertionResult sameBytes(Bytes const& expected, Buffer const& actual) {
    return sameBytes(expected, toBytes(actual));
}

Bytes readFile(yx::IFileSystem& fileSystem, yx::CURI const& uri) {
    unsigned int reserved = 0;
    auto const stream = fileSystem.openFile(uri, yx::IIOStream::ReadOnly, &reserved);
    return readAt(*stream, 0, static_cast<std::size_t>(stream->getLength()));
}

void writeFile(yx::IFileSystem& fileSystem, yx::CURI const& uri, Bytes const& content) {
    unsigned int reserved = 0;
    auto const stream = fileSystem.openFile(uri, yx::IIOStream::ReadWrite, &reserved);
    stream->setLength(0);
    writeAt(*stream, 0, content);
    stream->close();
}

Bytes readAt(yx::IInStream& stream, long long position, std::size_t count) {
    Bytes bytes(count);
    stream.seek(position);
    bytes.resize(
        static_cast<std::size_t>(stream.readLax(bytes.data(), static_cast<int>(bytes.size()))));
    return bytes;
}

void writeAt(yx::IOutStream& stream, long long position, Bytes const& content) {
    stream.seek(position);
    stream.write(content.data(), static_cast<int>(content.size()), nullptr);
}

} // namespace test_support

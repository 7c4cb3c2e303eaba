#pragma once

#include <functional>
#include <random>

#include <gtest/gtest.h>

#include "tests/support/bytes.h"
#include "tests/support/reference_codec.h"
#include "yx/error.h"

namespace test_support {

/// Zeros with a byte here and there.
inline Bytes sparse(std::size_t sizeBytes, unsigned int seed) {
    std::mt19937 random(seed);
    Bytes content(sizeBytes, 0);
    for (std::size_t i = random() % 100; i < sizeBytes; i += 1 + random() % 1000)
        content[i] = static_cast<unsigned char>(random());
    return content;
}

/// The lowest `sizeBytes` bytes of a number, the lowest first.
inline Bytes littleEndian(unsigned long long value, std::size_t sizeBytes) {
    Bytes bytes;
    for (std::size_t i = 0; i < sizeBytes; ++i)
        bytes.push_back(static_cast<unsigned char>(value >> (8 * i)));
    return bytes;
}

/// With zeros up to the next multiple of `unitBytes`.
inline Bytes padded(Bytes bytes, std::size_t unitBytes) {
    bytes.resize((bytes.size() + unitBytes - 1) / unitBytes * unitBytes);
    return bytes;
}

constexpr std::size_t kRecordSectorBytes = 512;
constexpr std::size_t kRecordHeaderBytes = 12;
constexpr std::size_t kRecordCipherBlockBytes = 16;

/// A record as other software would write it, padded to sectors.
inline Bytes makeRecord(unsigned long long lba, Bytes const& stream) {
    return padded(concat({littleEndian(lba, 8), littleEndian(stream.size(), 4), stream}),
                  kRecordSectorBytes);
}

/// A padded record with all behind its header enciphered, as it stands in a file.
inline Bytes encipherRecord(Bytes const& record, Bytes const& key, Bytes const& iv) {
    return concat({slice(record, 0, kRecordHeaderBytes),
                   encipherWithOpenSSL(padded(slice(record, kRecordHeaderBytes, record.size()),
                                              kRecordCipherBlockBytes),
                                       key, iv)});
}

/// A record taken apart by hand, its data decompressed by zlib.
struct Record {
    unsigned long long lba = 0;
    unsigned int compressedSizeBytes = 0;
    Bytes plain;
    Bytes padding;
};

inline Record takeApart(Bytes const& record, int maxPlainBytes) {
    Record parts;
    for (std::size_t i = 0; i < 8; ++i)
        parts.lba |= static_cast<unsigned long long>(record.at(i)) << (8 * i);
    for (std::size_t i = 0; i < 4; ++i)
        parts.compressedSizeBytes |= static_cast<unsigned int>(record.at(8 + i)) << (8 * i);
    std::size_t const endBytes = kRecordHeaderBytes + parts.compressedSizeBytes;
    parts.plain = decompressWithZlib(slice(record, kRecordHeaderBytes, parts.compressedSizeBytes),
                                     maxPlainBytes);
    parts.padding = slice(record, endBytes, record.size() - endBytes);
    return parts;
}

/// Whether `action` throws a `CIOError` of the code for corrupt data; its words are the decoder's.
inline testing::AssertionResult reportsCorruptData(std::function<void()> const& action) {
    try {
        action();
    } catch (yx::CIOError const& error) {
        if (error.getIOCode() == yx::CIOError::CorruptData)
            return testing::AssertionSuccess();
        return testing::AssertionFailure() << "code " << error.getCode() << ": " << error.what();
    }
    return testing::AssertionFailure() << "threw nothing";
}

} // namespace test_support

#pragma once

#include <cstdint>

#include "tests/support/bytes.h"

namespace test_support {

/// Bytes laid down by hand, one behind the other; numbers go in with their lowest byte first.
class ByteBuilder {
public:
    ByteBuilder& u8(std::uint8_t value) { return number(value); }
    ByteBuilder& u16(std::uint16_t value) { return number(value); }
    ByteBuilder& u32(std::uint32_t value) { return number(value); }
    ByteBuilder& u64(std::uint64_t value) { return number(value); }

    ByteBuilder& text(std::string_view text) { return append(fromText(text)); }

    ByteBuilder& append(Bytes const& bytes) {
        m_bytes.insert(m_bytes.end(), bytes.begin(), bytes.end());
        return *this;
    }

    ByteBuilder& fill(std::size_t count, unsigned char value) {
        m_bytes.insert(m_bytes.end(), count, value);
        return *this;
    }

    ByteBuilder& zeros(std::size_t count) { return fill(count, 0); }

    /// Zeros up to the next multiple of `blockSizeBytes`.
    ByteBuilder& padTo(std::size_t blockSizeBytes) {
        return zeros((blockSizeBytes - size() % blockSizeBytes) % blockSizeBytes);
    }

    std::size_t size() const { return m_bytes.size(); }
    Bytes const& bytes() const { return m_bytes; }

private:
    template <class T>
    ByteBuilder& number(T value) {
        for (std::size_t i = 0; i < sizeof(T); ++i)
            m_bytes.push_back(static_cast<unsigned char>(value >> (8 * i)));
        return *this;
    }

    Bytes m_bytes;
};

/// A buffer of zeros, as the writers of padding take it.
inline Buffer zeroBuffer(std::size_t sizeBytes) {
    return toBuffer(zeros(sizeBytes));
}

} // namespace test_support

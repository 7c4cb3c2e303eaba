#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace metadata_test {

/// The bytes of an extent file, laid down by hand: zeros but for what a test puts there. All
/// numbers go in with their lowest byte first.
class FileImage {
public:
    explicit FileImage(int sectors) : m_bytes(static_cast<std::size_t>(sectors) * 512) {}

    /// Puts 32-bit numbers one behind the other from the start of a sector on.
    FileImage& put32(int sector, std::vector<std::uint32_t> const& numbers) {
        return put(sector, numbers);
    }

    /// The same with 16-bit numbers.
    FileImage& put16(int sector, std::vector<std::uint16_t> const& numbers) {
        return put(sector, numbers);
    }

    /// The marker in front of a slot size directory of `value` sectors.
    FileImage& putSlotDirectoryMarker(int sector, std::uint32_t value) {
        return put32(sector, {value, 0, 0, 0x18349002});
    }

    std::vector<unsigned char> const& bytes() const { return m_bytes; }

private:
    template <class T>
    FileImage& put(int sector, std::vector<T> const& numbers) {
        std::size_t at = static_cast<std::size_t>(sector) * 512;
        for (T const number : numbers) {
            for (std::size_t i = 0; i < sizeof(T); ++i)
                m_bytes.at(at++) = static_cast<unsigned char>(number >> (8 * i));
        }
        return *this;
    }

    std::vector<unsigned char> m_bytes;
};

} // namespace metadata_test

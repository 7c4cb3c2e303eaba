#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string_view>

namespace yx::detail {

/// Whether all bytes are ASCII.
inline bool isAscii(std::string_view bytes) {
    constexpr std::uint64_t kHighestBits = 0x8080808080808080U;
    std::uint64_t step = 0;
    for (; bytes.size() >= sizeof step; bytes.remove_prefix(sizeof step)) {
        std::memcpy(&step, bytes.data(), sizeof step);
        if ((step & kHighestBits) != 0)
            return false;
    }
    return std::all_of(bytes.begin(), bytes.end(),
                       [](char byte) { return static_cast<unsigned char>(byte) < 0x80; });
}

/// The same for characters.
inline bool isAscii(std::wstring_view characters) {
    char32_t bits = 0;
    for (wchar_t const character : characters)
        bits |= static_cast<char32_t>(character);
    return bits < 0x80;
}

} // namespace yx::detail

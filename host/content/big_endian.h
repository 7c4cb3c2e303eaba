#pragma once

#include <concepts>
#include <cstddef>

namespace kelm::host {

/// The number that stands at `data`, the highest byte first.
template <std::unsigned_integral Number>
Number readBigEndian(unsigned char const* data) {
    Number number = 0;
    for (std::size_t i = 0; i < sizeof(Number); ++i)
        number = static_cast<Number>((number << 8) | data[i]);
    return number;
}

} // namespace kelm::host

#pragma once

#include <concepts>
#include <cstddef>

namespace kelm::host {

/// The number that stands at `data`, the lowest byte first.
template <std::unsigned_integral Number>
Number readLittleEndian(unsigned char const* data) {
    Number number = 0;
    for (std::size_t i = sizeof(Number); i > 0; --i)
        number = static_cast<Number>((number << 8) | data[i - 1]);
    return number;
}

} // namespace kelm::host

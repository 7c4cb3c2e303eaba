#pragma once

#include <climits>
#include <cstddef>

namespace kelm {

// Numbers in bytes that are in memory already; a stream has `yx::CDataInStream` for them.

template <class Number>
Number loadLittleEndian(unsigned char const* source) {
    Number number = 0;
    for (std::size_t i = 0; i < sizeof(Number); ++i)
        number = static_cast<Number>(number | static_cast<Number>(source[i]) << (i * CHAR_BIT));
    return number;
}

template <class Number>
void storeLittleEndian(unsigned char* target, Number number) {
    for (std::size_t i = 0; i < sizeof(Number); ++i)
        target[i] = static_cast<unsigned char>(number >> (i * CHAR_BIT));
}

} // namespace kelm

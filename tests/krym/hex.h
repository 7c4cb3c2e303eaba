#pragma once

#include "tests/support/bytes.h"
#include "yx/number.h"

/// A buffer with the bytes of hexadecimal digits, as published vectors give them.
inline yx::TBuffer<unsigned char> bufferFromHex(std::string_view digits) {
    return test_support::toBuffer(test_support::fromHex(digits));
}

/// The same for key material.
inline yx::TCryptBuffer<unsigned char> keyFromHex(std::string_view digits) {
    yx::TCryptBuffer<unsigned char> key;
    key.assign(bufferFromHex(digits));
    return key;
}

/// `sizeBytes` bytes in lower-case digits.
inline yx::String toHex(void const* data, int sizeBytes) {
    yx::TBuffer<unsigned char> bytes(sizeBytes, -1);
    yx::copyMemory(bytes.getData(), data, static_cast<std::size_t>(sizeBytes));
    return yx::hexEncode(bytes);
}

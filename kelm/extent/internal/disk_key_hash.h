#pragma once

#include "krym/krym.h"
#include "yx/buffer.h"

namespace kelm {

/// The only cipher there is, by the name that descriptors have for it.
constexpr char kCipherID[] = "aes256cbc";

/// The SHA-256 of a disk key, by which descriptors and extent headers tell the right one.
yx::TBuffer<unsigned char> hashKey(yx::TBuffer<unsigned char> const& key);

/// Whether `hash` is that of the key.
bool isHashOfKey(yx::TBuffer<unsigned char> const& hash, yx::TBuffer<unsigned char> const& key);

} // namespace kelm

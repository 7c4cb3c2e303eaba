#pragma once

#include "krym/krym.h"
#include "yx/buffer.h"

namespace kelm {

/// The name in descriptors of the only supported cipher.
constexpr char kCipherID[] = "aes256cbc";

/// The SHA-256 of a disk key. Descriptors and extent headers hold it, so that a wrong key can be
/// recognised.
yx::TBuffer<unsigned char> hashKey(yx::TBuffer<unsigned char> const& key);

/// Whether `hash` is the hash of `key`.
bool isHashOfKey(yx::TBuffer<unsigned char> const& hash, yx::TBuffer<unsigned char> const& key);

} // namespace kelm

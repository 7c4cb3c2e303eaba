#pragma once

#include <functional>

#include "krym/export.h"

namespace krym {

/// PBKDF2 of PKCS #5 with HMAC-SHA-1: fills `key` with `keySizeBytes` bytes.
///
/// Throws `yx::CInvalidArgError` that names "deriveKey_PKCS5_PBKDF2_HMAC_SHA1", and leaves `key`
/// alone, with
///   "Invalid password size: -1 bytes"       the same for "salt"; both may be 0
///   "Invalid number of iterations: 0"       at least 1
///   "Invalid key size: 0 bytes"             at least 1
///   "No password", "No salt", "No key"      null, and the size is not 0
/// A failure of OpenSSL is `yx::CError` with its words and code -1. What the hook of
/// `setKeyDerivationHook` throws passes. `key` is all zeros after either.
KRYM_API void deriveKey_PKCS5_PBKDF2_HMAC_SHA1(void const* password, int passwordSizeBytes,
                                               void const* salt, int saltSizeBytes, int iterations,
                                               int keySizeBytes, void* key);

/// Installs a hook that long derivations call, and returns the one that it replaces; an empty one
/// calls nothing. It is given the iterations that the derivation was asked for. It is called on the
/// thread that derives, before the first iteration and after every `kKeyDerivationStretch` of them,
/// and may throw to end the derivation.
KRYM_API std::function<void(int iterations)> setKeyDerivationHook(
    std::function<void(int iterations)> hook);

/// How many iterations pass between two calls of the hook: some hundredths of a second.
inline constexpr int kKeyDerivationStretch = 16384;

} // namespace krym

#pragma once

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
/// A failure of OpenSSL is `yx::CError` with its words and code -1; `key` is then all zeros.
KRYM_API void deriveKey_PKCS5_PBKDF2_HMAC_SHA1(void const* password, int passwordSizeBytes,
                                               void const* salt, int saltSizeBytes, int iterations,
                                               int keySizeBytes, void* key);

} // namespace krym

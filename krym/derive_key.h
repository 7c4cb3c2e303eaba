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

/// What a key is derived from. The pointers are valid during a call.
struct KeyDerivation {
    void const* password;  ///< may be null if its size is 0
    int passwordSizeBytes; ///< at least 0
    void const* salt;      ///< may be null if its size is 0
    int saltSizeBytes;     ///< at least 0
    int iterations;        ///< at least 1
    int keySizeBytes;      ///< at least 1
};

/// Keeps derived keys, so that none is derived twice. Called on every thread that derives, also by
/// several at once.
class KRYM_API IDerivedKeys {
public:
    virtual ~IDerivedKeys() = default;

    /// Fills `key` if the key of this derivation is known. False, and `key` as it was, if not.
    virtual bool tryGet(KeyDerivation const& derivation, void* key) = 0;

    /// Takes a key that has been derived.
    virtual void put(KeyDerivation const& derivation, void const* key) = 0;
};

/// Makes all derivations ask `keys` first and leave their results there, and returns what did so
/// before. Null, which is the default, keeps nothing. `keys` must outlive every derivation that
/// begins before the next call. The hook of `setKeyDerivationHook` is called before `keys` are
/// asked.
KRYM_API IDerivedKeys* setDerivedKeys(IDerivedKeys* keys);

/// How many iterations pass between two calls of the hook: some hundredths of a second.
inline constexpr int kKeyDerivationStretch = 16384;

} // namespace krym

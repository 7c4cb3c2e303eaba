#include "krym/derive_key.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>

#include "krym/internal/openssl_error.h"
#include "yx/error.h"

namespace krym {

namespace {

void checkArgument(bool isGood, yx::String const& message) {
    if (!isGood)
        throw yx::CInvalidArgError("deriveKey_PKCS5_PBKDF2_HMAC_SHA1", message, yx::CProps());
}

} // namespace

void deriveKey_PKCS5_PBKDF2_HMAC_SHA1(void const* password, int passwordSizeBytes, void const* salt,
                                      int saltSizeBytes, int iterations, int keySizeBytes,
                                      void* key) {
    checkArgument(passwordSizeBytes >= 0,
                  "Invalid password size: " + yx::toString(passwordSizeBytes) + " bytes");
    checkArgument(saltSizeBytes >= 0,
                  "Invalid salt size: " + yx::toString(saltSizeBytes) + " bytes");
    checkArgument(iterations >= 1, "Invalid number of iterations: " + yx::toString(iterations));
    checkArgument(keySizeBytes >= 1, "Invalid key size: " + yx::toString(keySizeBytes) + " bytes");
    checkArgument(password || passwordSizeBytes == 0, "No password");
    checkArgument(salt || saltSizeBytes == 0, "No salt");
    checkArgument(key, "No key");

    auto* const keyBytes = static_cast<unsigned char*>(key);
    if (PKCS5_PBKDF2_HMAC(static_cast<char const*>(password), passwordSizeBytes,
                          static_cast<unsigned char const*>(salt), saltSizeBytes, iterations,
                          EVP_sha1(), keySizeBytes, keyBytes) != 1) {
        OPENSSL_cleanse(keyBytes, static_cast<std::size_t>(keySizeBytes));
        throwOpenSSLError("PKCS5_PBKDF2_HMAC");
    }
}

} // namespace krym

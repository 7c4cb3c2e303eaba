#pragma once

#include "krym/openssl_cipher.h"

namespace krym {

/// AES with a key of 32 bytes in CBC mode; blocks and initialization vector are 16 bytes.
/// Its name is "aes256cbc".
class KRYM_API CCipher_AES256CBC : public COpenSSLCipher {
public:
    CCipher_AES256CBC();
};

} // namespace krym

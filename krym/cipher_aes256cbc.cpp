#include "krym/cipher_aes256cbc.h"

namespace krym {

CCipher_AES256CBC::CCipher_AES256CBC() : COpenSSLCipher("aes256cbc", "AES-256-CBC") {}

} // namespace krym

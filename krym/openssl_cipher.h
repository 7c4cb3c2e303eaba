#pragma once

#include <memory>

#include "krym/cipher.h"

namespace krym {

/// A cipher of OpenSSL in CBC mode.
///
/// Beyond the contract of `ICipher`, `encrypt` and `decrypt` throw `yx::CInvalidArgError` that
/// names "COpenSSLCipher::encrypt" or "COpenSSLCipher::decrypt", and leave `target` alone, with
///   "Invalid key size: 31 bytes instead of 32"
///   "Invalid source size: -1 bytes"
///   "No initialization vector"
///   "No source"                       null, and the size is not 0
///   "Size is no whole number of cipher blocks: 17 bytes"        `decrypt` only
///   "Result is too large for the target: 2147483648 bytes"      content that stays included
/// A failure of OpenSSL is `yx::CError` with its words ("OpenSSL EVP_CipherUpdate failed: ...") and
/// code -1; the used size of `target` and with `append` its content are then as they were.
///
/// OpenSSL's cipher and context are made once and live as long as the object. The context is
/// cleared at the end of each call, failed ones included, so that no key stays in it.
class KRYM_API COpenSSLCipher : public yx::CBase, public virtual ICipher {
public:
    COpenSSLCipher(COpenSSLCipher const&) = delete;
    COpenSSLCipher& operator=(COpenSSLCipher const&) = delete;
    ~COpenSSLCipher() override;

    yx::String getID() override;
    int getKeySize() override;
    int getIVSize() override;
    int getBlockSize() override;

    void encrypt(yx::TCryptBuffer<unsigned char> const& key, void const* source, int sizeBytes,
                 yx::TBuffer<unsigned char>& target, bool append, unsigned char const* iv) override;
    void decrypt(yx::TCryptBuffer<unsigned char> const& key, void const* source, int sizeBytes,
                 yx::TBuffer<unsigned char>& target, bool append, unsigned char const* iv) override;

protected:
    /// `algorithm` is OpenSSL's name of the cipher, `id` the one that `getID` gives. An algorithm
    /// that OpenSSL does not have is `yx::CError` with its words; one in another mode is
    /// `yx::CInvalidArgError`: "Cipher is not in CBC mode: " and the algorithm.
    COpenSSLCipher(yx::String const& id, char const* algorithm);

private:
    struct State;

    yx::String m_id;
    std::unique_ptr<State> m_state;
};

} // namespace krym

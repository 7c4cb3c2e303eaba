#include "krym/openssl_cipher.h"

#include <array>
#include <cassert>
#include <limits>

#include <openssl/evp.h>

#include "krym/internal/openssl_error.h"
#include "yx/error.h"

namespace krym {

namespace {

struct FreeCipher {
    void operator()(EVP_CIPHER* cipher) const { EVP_CIPHER_free(cipher); }
    void operator()(EVP_CIPHER_CTX* context) const { EVP_CIPHER_CTX_free(context); }
};
using CipherPtr = std::unique_ptr<EVP_CIPHER, FreeCipher>;
using ContextPtr = std::unique_ptr<EVP_CIPHER_CTX, FreeCipher>;

/// The values are those that OpenSSL takes.
enum Direction {
    Decrypt = 0,
    Encrypt = 1,
};

CipherPtr fetchCipher(char const* algorithm) {
    CipherPtr cipher(EVP_CIPHER_fetch(nullptr, algorithm, nullptr));
    if (!cipher)
        throwOpenSSLError("EVP_CIPHER_fetch");
    // In CBC mode without padding, what comes out is as long as what goes in, call by call; the
    // room made in the target relies on it.
    if (EVP_CIPHER_get_mode(cipher.get()) != EVP_CIPH_CBC_MODE)
        throw yx::CInvalidArgError("COpenSSLCipher::COpenSSLCipher",
                                   yx::String("Cipher is not in CBC mode: ") + algorithm,
                                   yx::CProps());
    return cipher;
}

ContextPtr makeContext() {
    ContextPtr context(EVP_CIPHER_CTX_new());
    if (!context)
        throwOpenSSLError("EVP_CIPHER_CTX_new");
    return context;
}

/// One use of a context, from the setting of the key to its clearing.
class CChain {
public:
    CChain(EVP_CIPHER_CTX* context, EVP_CIPHER const* cipher, Direction direction,
           unsigned char const* key, unsigned char const* iv)
        : m_context(context) {
        if (EVP_CipherInit_ex2(context, cipher, key, iv, direction, nullptr) != 1)
            throwOpenSSLError("EVP_CipherInit_ex2");
        if (EVP_CIPHER_CTX_set_padding(context, 0) != 1)
            throwOpenSSLError("EVP_CIPHER_CTX_set_padding");
    }

    /// Puts whole blocks through.
    void update(unsigned char* target, void const* source, int sizeBytes) {
        int resultSizeBytes = 0;
        if (EVP_CipherUpdate(m_context.get(), target, &resultSizeBytes,
                             static_cast<unsigned char const*>(source), sizeBytes) != 1)
            throwOpenSSLError("EVP_CipherUpdate");
        assert(resultSizeBytes == sizeBytes && "whole blocks go through without padding");
    }

    /// Puts a partial block through, filled with zeros to `blockSizeBytes`.
    void updateFilled(unsigned char* target, void const* source, int sizeBytes,
                      int blockSizeBytes) {
        assert(sizeBytes > 0 && sizeBytes < blockSizeBytes &&
               blockSizeBytes <= static_cast<int>(EVP_MAX_BLOCK_LENGTH));
        WipedBlock block;
        yx::copyMemory(block.bytes.data(), source, static_cast<std::size_t>(sizeBytes));
        update(target, block.bytes.data(), blockSizeBytes);
    }

private:
    /// Zeros, before and after.
    struct WipedBlock {
        WipedBlock() = default;
        WipedBlock(WipedBlock const&) = delete;
        WipedBlock& operator=(WipedBlock const&) = delete;
        ~WipedBlock() { yx::initMemory(bytes.data(), 0, bytes.size()); }

        std::array<unsigned char, EVP_MAX_BLOCK_LENGTH> bytes{};
    };

    struct Reset {
        void operator()(EVP_CIPHER_CTX* context) const { EVP_CIPHER_CTX_reset(context); }
    };

    std::unique_ptr<EVP_CIPHER_CTX, Reset> m_context;
};

void checkArguments(char const* function, int keySizeBytes, int expectedKeySizeBytes,
                    void const* source, int sizeBytes, unsigned char const* iv) {
    auto const fail = [function](yx::String const& message) {
        throw yx::CInvalidArgError(function, message, yx::CProps());
    };

    if (keySizeBytes != expectedKeySizeBytes)
        fail("Invalid key size: " + yx::toString(keySizeBytes) + " bytes instead of " +
             yx::toString(expectedKeySizeBytes));
    if (sizeBytes < 0)
        fail("Invalid source size: " + yx::toString(sizeBytes) + " bytes");
    if (!iv)
        fail("No initialization vector");
    if (!source && sizeBytes > 0)
        fail("No source");
}

/// Makes room in `target` for `sizeBytes` bytes from `offset` on, leaving its used size alone.
void reserve(char const* function, yx::TBuffer<unsigned char>& target, int offset,
             __int64 sizeBytes) {
    __int64 const totalSizeBytes = offset + sizeBytes;
    if (totalSizeBytes > std::numeric_limits<int>::max())
        throw yx::CInvalidArgError(
            function,
            "Result is too large for the target: " + yx::toString(totalSizeBytes) + " bytes",
            yx::CProps());
    target.ensureAllocated(static_cast<int>(totalSizeBytes));
}

} // namespace

struct COpenSSLCipher::State {
    explicit State(char const* algorithm)
        : cipher(fetchCipher(algorithm)),
          keySizeBytes(EVP_CIPHER_get_key_length(cipher.get())),
          ivSizeBytes(EVP_CIPHER_get_iv_length(cipher.get())),
          blockSizeBytes(EVP_CIPHER_get_block_size(cipher.get())),
          context(makeContext()) {
        assert(keySizeBytes > 0 && blockSizeBytes > 1 && ivSizeBytes == blockSizeBytes);
    }

    CChain start(Direction direction, yx::TCryptBuffer<unsigned char> const& key,
                 unsigned char const* iv) {
        return CChain(context.get(), cipher.get(), direction, key.getData(), iv);
    }

    CipherPtr cipher;
    int keySizeBytes;
    int ivSizeBytes;
    int blockSizeBytes;
    ContextPtr context;
};

COpenSSLCipher::COpenSSLCipher(yx::String const& id, char const* algorithm)
    : m_id(id), m_state(std::make_unique<State>(algorithm)) {}

COpenSSLCipher::~COpenSSLCipher() = default;

yx::String COpenSSLCipher::getID() {
    return m_id;
}

int COpenSSLCipher::getKeySize() {
    return m_state->keySizeBytes;
}

int COpenSSLCipher::getIVSize() {
    return m_state->ivSizeBytes;
}

int COpenSSLCipher::getBlockSize() {
    return m_state->blockSizeBytes;
}

void COpenSSLCipher::encrypt(yx::TCryptBuffer<unsigned char> const& key, void const* source,
                             int sizeBytes, yx::TBuffer<unsigned char>& target, bool append,
                             unsigned char const* iv) {
    static constexpr char const* kFunction = "COpenSSLCipher::encrypt";
    checkArguments(kFunction, key.getUsed(), m_state->keySizeBytes, source, sizeBytes, iv);

    int const partSizeBytes = sizeBytes % m_state->blockSizeBytes;
    int const wholeSizeBytes = sizeBytes - partSizeBytes;
    int const lastSizeBytes = partSizeBytes > 0 ? m_state->blockSizeBytes : 0;
    int const offset = append ? target.getUsed() : 0;
    reserve(kFunction, target, offset, static_cast<__int64>(wholeSizeBytes) + lastSizeBytes);

    CChain chain = m_state->start(Encrypt, key, iv);
    unsigned char* const result = target.getData() + offset;
    if (wholeSizeBytes > 0)
        chain.update(result, source, wholeSizeBytes);
    if (partSizeBytes > 0)
        chain.updateFilled(result + wholeSizeBytes,
                           static_cast<unsigned char const*>(source) + wholeSizeBytes,
                           partSizeBytes, m_state->blockSizeBytes);
    target.setUsed(offset + wholeSizeBytes + lastSizeBytes);
}

void COpenSSLCipher::decrypt(yx::TCryptBuffer<unsigned char> const& key, void const* source,
                             int sizeBytes, yx::TBuffer<unsigned char>& target, bool append,
                             unsigned char const* iv) {
    static constexpr char const* kFunction = "COpenSSLCipher::decrypt";
    checkArguments(kFunction, key.getUsed(), m_state->keySizeBytes, source, sizeBytes, iv);
    if (sizeBytes % m_state->blockSizeBytes != 0)
        throw yx::CInvalidArgError(
            kFunction,
            "Size is no whole number of cipher blocks: " + yx::toString(sizeBytes) + " bytes",
            yx::CProps());

    int const offset = append ? target.getUsed() : 0;
    reserve(kFunction, target, offset, sizeBytes);

    CChain chain = m_state->start(Decrypt, key, iv);
    if (sizeBytes > 0)
        chain.update(target.getData() + offset, source, sizeBytes);
    target.setUsed(offset + sizeBytes);
}

} // namespace krym

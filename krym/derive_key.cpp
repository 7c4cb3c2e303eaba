#include "krym/derive_key.h"

#include <algorithm>
#include <array>
#include <memory>
#include <mutex>
#include <utility>

#include <openssl/crypto.h>
#include <openssl/evp.h>

#include "krym/internal/openssl_error.h"
#include "yx/error.h"

namespace krym {

namespace {

using KeyDerivationHook = std::function<void(int iterations)>;

constexpr int kDigestSizeBytes = 20;
constexpr int kDigestBlockSizeBytes = 64;

using Digest = std::array<unsigned char, kDigestSizeBytes>;

void checkArgument(bool isGood, yx::String const& message) {
    if (!isGood)
        throw yx::CInvalidArgError("deriveKey_PKCS5_PBKDF2_HMAC_SHA1", message, yx::CProps());
}

void verifyDone(int result, char const* function) {
    if (result != 1)
        throwOpenSSLError(function);
}

/// The hook, which is exchanged and called on any thread.
class HookSlot {
public:
    KeyDerivationHook exchange(KeyDerivationHook hook) {
        std::lock_guard const lock(m_mutex);
        std::swap(m_hook, hook);
        return hook;
    }

    void call(int iterations) {
        KeyDerivationHook const hook = get();
        if (hook)
            hook(iterations);
    }

private:
    KeyDerivationHook get() {
        std::lock_guard const lock(m_mutex);
        return m_hook;
    }

    std::mutex m_mutex;
    KeyDerivationHook m_hook;
};

/// Never destroyed, since keys may be derived while the program ends.
HookSlot& hookSlot() {
    static auto& slot = *new HookSlot;
    return slot;
}

/// HMAC-SHA-1 under one key. OpenSSL's own derivation cannot be interrupted, and its HMAC takes in
/// the key anew for each message.
class Hmac {
public:
    Hmac(void const* key, int keySizeBytes)
        : m_inner(makeContext()), m_outer(makeContext()), m_work(makeContext()) {
        PaddedKey padded{};
        if (keySizeBytes > kDigestBlockSizeBytes) {
            begin(*m_work, key, keySizeBytes);
            verifyDone(EVP_DigestFinal_ex(m_work.get(), padded.bytes.data(), nullptr),
                       "EVP_DigestFinal_ex");
        } else if (keySizeBytes > 0) {
            std::copy_n(static_cast<unsigned char const*>(key), keySizeBytes, padded.bytes.data());
        }
        constexpr unsigned char kInnerPad = 0x36;
        constexpr unsigned char kOuterPad = 0x5c;
        padded.mix(kInnerPad);
        begin(*m_inner, padded.bytes.data(), kDigestBlockSizeBytes);
        padded.mix(kInnerPad ^ kOuterPad);
        begin(*m_outer, padded.bytes.data(), kDigestBlockSizeBytes);
    }

    /// Starts a message.
    void start() { copy(*m_inner); }

    void add(void const* data, int sizeBytes) {
        verifyDone(EVP_DigestUpdate(m_work.get(), data, static_cast<std::size_t>(sizeBytes)),
                   "EVP_DigestUpdate");
    }

    /// Ends the message.
    void finish(Digest& result) {
        verifyDone(EVP_DigestFinal_ex(m_work.get(), result.data(), nullptr), "EVP_DigestFinal_ex");
        copy(*m_outer);
        add(result.data(), kDigestSizeBytes);
        verifyDone(EVP_DigestFinal_ex(m_work.get(), result.data(), nullptr), "EVP_DigestFinal_ex");
    }

private:
    struct FreeContext {
        void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
    };
    using Context = std::unique_ptr<EVP_MD_CTX, FreeContext>;

    struct PaddedKey {
        std::array<unsigned char, kDigestBlockSizeBytes> bytes;

        ~PaddedKey() { OPENSSL_cleanse(bytes.data(), bytes.size()); }
        void mix(unsigned char pad) {
            for (unsigned char& byte : bytes)
                byte ^= pad;
        }
    };

    static Context makeContext() {
        Context context(EVP_MD_CTX_new());
        if (!context)
            throwOpenSSLError("EVP_MD_CTX_new");
        return context;
    }

    static void begin(EVP_MD_CTX& context, void const* data, int sizeBytes) {
        verifyDone(EVP_DigestInit_ex2(&context, EVP_sha1(), nullptr), "EVP_DigestInit_ex2");
        verifyDone(EVP_DigestUpdate(&context, data, static_cast<std::size_t>(sizeBytes)),
                   "EVP_DigestUpdate");
    }

    void copy(EVP_MD_CTX const& state) {
        verifyDone(EVP_MD_CTX_copy_ex(m_work.get(), &state), "EVP_MD_CTX_copy_ex");
    }

    Context m_inner;
    Context m_outer;
    Context m_work;
};

/// A digest of something secret.
struct SecretDigest {
    Digest bytes{};

    ~SecretDigest() { OPENSSL_cleanse(bytes.data(), bytes.size()); }
};

/// The block of the key with this number, counted from 1.
void deriveBlock(Hmac& hmac, void const* salt, int saltSizeBytes, int iterations,
                 unsigned int blockNumber, Digest& block) {
    SecretDigest link;
    unsigned char const number[] = {static_cast<unsigned char>(blockNumber >> 24),
                                    static_cast<unsigned char>(blockNumber >> 16),
                                    static_cast<unsigned char>(blockNumber >> 8),
                                    static_cast<unsigned char>(blockNumber)};
    hmac.start();
    if (saltSizeBytes > 0)
        hmac.add(salt, saltSizeBytes);
    hmac.add(number, static_cast<int>(sizeof number));
    hmac.finish(link.bytes);
    block = link.bytes;
    for (int i = 1; i < iterations; ++i) {
        if (i % kKeyDerivationStretch == 0)
            hookSlot().call(iterations);
        hmac.start();
        hmac.add(link.bytes.data(), kDigestSizeBytes);
        hmac.finish(link.bytes);
        for (std::size_t at = 0; at < block.size(); ++at)
            block[at] ^= link.bytes[at];
    }
}

void deriveBlocks(Hmac& hmac, void const* salt, int saltSizeBytes, int iterations, int keySizeBytes,
                  unsigned char* key) {
    unsigned int blockNumber = 0;
    for (int at = 0; at < keySizeBytes; at += std::min(kDigestSizeBytes, keySizeBytes - at)) {
        SecretDigest block;
        deriveBlock(hmac, salt, saltSizeBytes, iterations, ++blockNumber, block.bytes);
        std::copy_n(block.bytes.data(), std::min(kDigestSizeBytes, keySizeBytes - at), key + at);
    }
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
    try {
        hookSlot().call(iterations);
        Hmac hmac(password, passwordSizeBytes);
        deriveBlocks(hmac, salt, saltSizeBytes, iterations, keySizeBytes, keyBytes);
    } catch (...) {
        OPENSSL_cleanse(keyBytes, static_cast<std::size_t>(keySizeBytes));
        throw;
    }
}

std::function<void(int iterations)> setKeyDerivationHook(std::function<void(int iterations)> hook) {
    return hookSlot().exchange(std::move(hook));
}

} // namespace krym

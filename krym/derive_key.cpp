#include "krym/derive_key.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <mutex>
#include <utility>

#include <openssl/crypto.h>
#include <openssl/sha.h>

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

std::atomic<IDerivedKeys*> derivedKeys = nullptr;

/// HMAC-SHA-1 under one key. OpenSSL's own derivation cannot be interrupted. Its general interface
/// to digests takes and frees memory for each message, and most of the time with it; a state of the
/// digest itself is copied as it is.
class Hmac {
public:
    Hmac(void const* key, int keySizeBytes) {
        PaddedKey padded{};
        if (keySizeBytes > kDigestBlockSizeBytes) {
            begin(m_work, key, keySizeBytes);
            verifyDone(SHA1_Final(padded.bytes.data(), &m_work), "SHA1_Final");
        } else if (keySizeBytes > 0) {
            std::copy_n(static_cast<unsigned char const*>(key), keySizeBytes, padded.bytes.data());
        }
        constexpr unsigned char kInnerPad = 0x36;
        constexpr unsigned char kOuterPad = 0x5c;
        padded.mix(kInnerPad);
        begin(m_inner, padded.bytes.data(), kDigestBlockSizeBytes);
        padded.mix(kInnerPad ^ kOuterPad);
        begin(m_outer, padded.bytes.data(), kDigestBlockSizeBytes);
    }
    Hmac(Hmac const&) = delete;
    Hmac& operator=(Hmac const&) = delete;

    ~Hmac() {
        for (SHA_CTX* const state : {&m_inner, &m_outer, &m_work})
            OPENSSL_cleanse(state, sizeof *state);
    }

    /// Starts a message.
    void start() { m_work = m_inner; }

    void add(void const* data, int sizeBytes) {
        verifyDone(SHA1_Update(&m_work, data, static_cast<std::size_t>(sizeBytes)), "SHA1_Update");
    }

    /// Ends the message.
    void finish(Digest& result) {
        verifyDone(SHA1_Final(result.data(), &m_work), "SHA1_Final");
        m_work = m_outer;
        add(result.data(), kDigestSizeBytes);
        verifyDone(SHA1_Final(result.data(), &m_work), "SHA1_Final");
    }

private:
    struct PaddedKey {
        std::array<unsigned char, kDigestBlockSizeBytes> bytes;

        ~PaddedKey() { OPENSSL_cleanse(bytes.data(), bytes.size()); }
        void mix(unsigned char pad) {
            for (unsigned char& byte : bytes)
                byte ^= pad;
        }
    };

    static void begin(SHA_CTX& state, void const* data, int sizeBytes) {
        verifyDone(SHA1_Init(&state), "SHA1_Init");
        verifyDone(SHA1_Update(&state, data, static_cast<std::size_t>(sizeBytes)), "SHA1_Update");
    }

    SHA_CTX m_inner{};
    SHA_CTX m_outer{};
    SHA_CTX m_work{};
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
    KeyDerivation const derivation{password,      passwordSizeBytes, salt,
                                   saltSizeBytes, iterations,        keySizeBytes};
    IDerivedKeys* const known = derivedKeys.load();
    try {
        hookSlot().call(iterations);
        if (known && known->tryGet(derivation, key))
            return;
        Hmac hmac(password, passwordSizeBytes);
        deriveBlocks(hmac, salt, saltSizeBytes, iterations, keySizeBytes, keyBytes);
        if (known)
            known->put(derivation, key);
    } catch (...) {
        OPENSSL_cleanse(keyBytes, static_cast<std::size_t>(keySizeBytes));
        throw;
    }
}

std::function<void(int iterations)> setKeyDerivationHook(std::function<void(int iterations)> hook) {
    return hookSlot().exchange(std::move(hook));
}

IDerivedKeys* setDerivedKeys(IDerivedKeys* keys) {
    return derivedKeys.exchange(keys);
}

} // namespace krym

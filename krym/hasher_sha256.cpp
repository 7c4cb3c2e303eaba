#include "krym/hasher_sha256.h"

#include <array>

#include <openssl/evp.h>

#include "krym/internal/openssl_error.h"

namespace krym {

namespace {

/// SHA-256 works on blocks of this size, and so does its HMAC.
constexpr int kHashBlockSizeBytes = 64;
constexpr unsigned char kHasherInnerPad = 0x36;
constexpr unsigned char kHasherOuterPad = 0x5C;

struct FreeHashContext {
    void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
};
using HashContext = std::unique_ptr<EVP_MD_CTX, FreeHashContext>;

struct FreeHashAlgorithm {
    void operator()(EVP_MD* algorithm) const { EVP_MD_free(algorithm); }
};

HashContext newHashContext() {
    HashContext context(EVP_MD_CTX_new());
    if (!context)
        throwOpenSSLError("EVP_MD_CTX_new");
    return context;
}

void updateHash(EVP_MD_CTX* context, void const* data, int sizeBytes) {
    if (EVP_DigestUpdate(context, data, static_cast<std::size_t>(sizeBytes)) != 1)
        throwOpenSSLError("EVP_DigestUpdate");
}

void finishHash(EVP_MD_CTX* context, unsigned char* hash) {
    unsigned int sizeBytes = 0;
    if (EVP_DigestFinal_ex(context, hash, &sizeBytes) != 1)
        throwOpenSSLError("EVP_DigestFinal_ex");
}

void copyContext(EVP_MD_CTX* target, EVP_MD_CTX const* source) {
    if (EVP_MD_CTX_copy_ex(target, source) != 1)
        throwOpenSSLError("EVP_MD_CTX_copy_ex");
}

} // namespace

struct CHasher_SHA256::State {
    std::unique_ptr<EVP_MD, FreeHashAlgorithm> algorithm;

    /// The message.
    HashContext work = newHashContext();

    /// What it begins as, and with a key what its hash goes behind; without one `outer` is null.
    HashContext inner = newHashContext();
    HashContext outer;

    void init(EVP_MD_CTX* context) const {
        if (EVP_DigestInit_ex2(context, algorithm.get(), nullptr) != 1)
            throwOpenSSLError("EVP_DigestInit_ex2");
    }

    void pad(EVP_MD_CTX* context, yx::TCryptBuffer<unsigned char> const& block,
             unsigned char value) const {
        yx::TCryptBuffer<unsigned char> padded(block);
        for (int i = 0; i < kHashBlockSizeBytes; ++i)
            padded.getData()[i] ^= value;
        init(context);
        updateHash(context, padded.getData(), kHashBlockSizeBytes);
    }
};

CHasher_SHA256::CHasher_SHA256() : m_state(std::make_unique<State>()) {
    m_state->algorithm.reset(EVP_MD_fetch(nullptr, "SHA2-256", nullptr));
    if (!m_state->algorithm)
        throwOpenSSLError("EVP_MD_fetch");
    m_state->init(m_state->inner.get());
    begin();
}

CHasher_SHA256::CHasher_SHA256(yx::TCryptBuffer<unsigned char> const& key) : CHasher_SHA256() {
    yx::TCryptBuffer<unsigned char> block(kHashBlockSizeBytes, -1);
    yx::initMemory(block.getData(), 0, kHashBlockSizeBytes);
    if (key.getUsed() > kHashBlockSizeBytes) {
        update(key.getData(), key.getUsed());
        finish(block.getData());
    } else {
        yx::copyMemory(block.getData(), key.getData(), static_cast<std::size_t>(key.getUsed()));
    }
    m_state->outer = newHashContext();
    m_state->pad(m_state->inner.get(), block, kHasherInnerPad);
    m_state->pad(m_state->outer.get(), block, kHasherOuterPad);
    begin();
}

CHasher_SHA256::~CHasher_SHA256() = default;

void CHasher_SHA256::begin() {
    copyContext(m_state->work.get(), m_state->inner.get());
}

void CHasher_SHA256::update(void const* data, int sizeBytes) {
    updateHash(m_state->work.get(), data, sizeBytes);
}

void CHasher_SHA256::finish(unsigned char* hash) {
    finishHash(m_state->work.get(), hash);
    if (!m_state->outer)
        return;
    copyContext(m_state->work.get(), m_state->outer.get());
    updateHash(m_state->work.get(), hash, kHashSizeBytes);
    finishHash(m_state->work.get(), hash);
}

} // namespace krym

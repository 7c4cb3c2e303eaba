#include "krym/openssl_digest.h"

#include <array>
#include <cassert>

#include <openssl/evp.h>

#include "krym/internal/openssl_error.h"
#include "yx/error.h"

namespace krym {

namespace {

[[noreturn]] void throwOrderError(char const* message) {
    throw yx::CError(message, "", -1, yx::CProps(), nullptr);
}

struct FreeDigest {
    void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
};

} // namespace

struct COpenSSLDigest::State {
    std::unique_ptr<EVP_MD_CTX, FreeDigest> context;
    bool isFinished = false;
    std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
};

COpenSSLDigest::COpenSSLDigest(evp_md_st const* algorithm) : m_state(std::make_unique<State>()) {
    m_state->context.reset(EVP_MD_CTX_new());
    if (!m_state->context)
        throwOpenSSLError("EVP_MD_CTX_new");
    if (EVP_DigestInit_ex2(m_state->context.get(), algorithm, nullptr) != 1)
        throwOpenSSLError("EVP_DigestInit_ex2");
    assert(getSize() > 0 && getSize() <= EVP_MAX_MD_SIZE);
}

COpenSSLDigest::~COpenSSLDigest() = default;

int COpenSSLDigest::getSize() {
    return EVP_MD_CTX_get_size(m_state->context.get());
}

void COpenSSLDigest::update(void const* data, int sizeBytes) {
    static constexpr char const* kFunction = "COpenSSLDigest::update";
    if (sizeBytes < 0)
        throw yx::CInvalidArgError(
            kFunction, "Invalid data size: " + yx::toString(sizeBytes) + " bytes", yx::CProps());
    if (!data && sizeBytes > 0)
        throw yx::CInvalidArgError(kFunction, "No data", yx::CProps());
    if (m_state->isFinished)
        throwOrderError("Internal error: digest is finished already");
    if (EVP_DigestUpdate(m_state->context.get(), data, static_cast<std::size_t>(sizeBytes)) != 1)
        throwOpenSSLError("EVP_DigestUpdate");
}

void COpenSSLDigest::finish() {
    if (m_state->isFinished)
        throwOrderError("Internal error: digest is finished already");
    unsigned int sizeBytes = 0;
    if (EVP_DigestFinal_ex(m_state->context.get(), m_state->digest.data(), &sizeBytes) != 1)
        throwOpenSSLError("EVP_DigestFinal_ex");
    assert(sizeBytes == static_cast<unsigned int>(getSize()));
    m_state->isFinished = true;
}

void const* COpenSSLDigest::getData() {
    if (!m_state->isFinished)
        throwOrderError("Internal error: digest is not finished yet");
    return m_state->digest.data();
}

} // namespace krym

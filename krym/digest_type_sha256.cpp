#include "krym/digest_type_sha256.h"

#include <openssl/evp.h>

#include "krym/internal/openssl_error.h"
#include "krym/openssl_digest.h"

namespace krym {

namespace {

struct FreeDigestType {
    void operator()(EVP_MD* algorithm) const { EVP_MD_free(algorithm); }
};

} // namespace

struct CDigestType_SHA256::State {
    std::unique_ptr<EVP_MD, FreeDigestType> algorithm;
};

CDigestType_SHA256::CDigestType_SHA256() : m_state(std::make_unique<State>()) {
    m_state->algorithm.reset(EVP_MD_fetch(nullptr, "SHA2-256", nullptr));
    if (!m_state->algorithm)
        throwOpenSSLError("EVP_MD_fetch");
}

CDigestType_SHA256::~CDigestType_SHA256() = default;

yx::P<IDigest> CDigestType_SHA256::createDigest() {
    return yx::makeObject<COpenSSLDigest>(m_state->algorithm.get());
}

} // namespace krym

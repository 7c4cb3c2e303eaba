#pragma once

#include <memory>

#include "krym/digest.h"

struct evp_md_st;

namespace krym {

/// A digest of OpenSSL. Beyond the contract of `IDigest`, `update` refuses a size below 0 and a
/// null pointer to more than 0 bytes by `yx::CInvalidArgError` that names "COpenSSLDigest::update".
/// A failure of OpenSSL is `yx::CError` with its words and code -1.
class KRYM_API COpenSSLDigest : public yx::CBase, public virtual IDigest {
public:
    /// `algorithm` is an `EVP_MD`, needed during this call only.
    explicit COpenSSLDigest(evp_md_st const* algorithm);
    COpenSSLDigest(COpenSSLDigest const&) = delete;
    COpenSSLDigest& operator=(COpenSSLDigest const&) = delete;
    ~COpenSSLDigest() override;

    int getSize() override;
    void update(void const* data, int sizeBytes) override;
    void finish() override;
    void const* getData() override;

private:
    struct State;

    std::unique_ptr<State> m_state;
};

} // namespace krym

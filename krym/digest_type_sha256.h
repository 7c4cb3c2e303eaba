#pragma once

#include <memory>

#include "krym/digest_type.h"

namespace krym {

/// SHA-256; its digests are 32 bytes.
class KRYM_API CDigestType_SHA256 : public yx::CBase, public virtual IDigestType {
public:
    /// An OpenSSL that does not offer SHA-256 is `yx::CError` with its words and code -1.
    CDigestType_SHA256();
    CDigestType_SHA256(CDigestType_SHA256 const&) = delete;
    CDigestType_SHA256& operator=(CDigestType_SHA256 const&) = delete;
    ~CDigestType_SHA256() override;

    yx::P<IDigest> createDigest() override;

private:
    struct State;

    std::unique_ptr<State> m_state;
};

} // namespace krym

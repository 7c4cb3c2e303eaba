#pragma once

#include <memory>

#include "krym/export.h"
#include "yx/buffer.h"

namespace krym {

/// Hashes many messages one after the other, by SHA-256, or with a key by HMAC-SHA-256 (RFC 2104).
/// OpenSSL's algorithm is fetched once and its contexts are used again, so that short messages cost
/// little beyond their bytes; for a single message, `CDigestType_SHA256` does. An object serves one
/// thread at a time.
///
/// A failure of OpenSSL is `yx::CError` with its words and code -1.
class KRYM_API CHasher_SHA256 : public yx::CBase {
public:
    /// The size of a hash.
    static constexpr int kHashSizeBytes = 32;

    /// For SHA-256.
    CHasher_SHA256();

    /// For HMAC-SHA-256 with a key of any size. No copy of the key is kept.
    explicit CHasher_SHA256(yx::TCryptBuffer<unsigned char> const& key);

    CHasher_SHA256(CHasher_SHA256 const&) = delete;
    CHasher_SHA256& operator=(CHasher_SHA256 const&) = delete;
    ~CHasher_SHA256() override;

    /// Begins a message, whatever came before. A new object has begun one.
    void begin();

    /// Feeds `sizeBytes` bytes, at least 0, to the message.
    void update(void const* data, int sizeBytes);

    /// Ends the message and writes its `kHashSizeBytes` bytes to `hash`. `begin` comes next.
    void finish(unsigned char* hash);

private:
    struct State;

    std::unique_ptr<State> m_state;
};

} // namespace krym

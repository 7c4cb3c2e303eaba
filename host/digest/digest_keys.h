#pragma once

#include "host/digest/digest.h"
#include "yx/buffer.h"

namespace kelm {
class CVMDKDisk;
} // namespace kelm

namespace kelm::host {

/// How the digests of a disk are made: by SHA-256, or for an encrypted disk by HMAC-SHA-256 under
/// keys that are derived from the disk's (`CVMDKDisk::derivePurposeKey`), since plain digests would
/// tell which grains have content that somebody knows.
struct DigestKeys {
    /// For a disk that is not encrypted.
    DigestKeys() = default;

    /// For the digests of `disk`.
    explicit DigestKeys(CVMDKDisk const& disk);

    /// Whether digests have a key.
    bool isKeyed = false;

    /// For the grains, for the digest file itself, and for hiding the digest of the image in it.
    yx::TCryptBuffer<unsigned char> grainKey;
    yx::TCryptBuffer<unsigned char> fileKey;
    yx::TCryptBuffer<unsigned char> imageKey;
};

/// Makes the digests of grains. An object serves one thread.
class GrainHasher {
public:
    /// `keys` are needed during this call only.
    explicit GrainHasher(DigestKeys const& keys);

    /// The digest of the content of a grain: of `bytes` bytes, and of zeros behind them up to
    /// `wholeBytes`, which is how much of the grain lies in its disk. With a key, the index of the
    /// grain goes before them, as 8 bytes, the lowest first: grains of equal content then differ.
    Digest hash(__int64 grainIndex, void const* content, int bytes, int wholeBytes);

private:
    krym::CHasher_SHA256 m_hasher;
    bool m_isKeyed;
};

/// Digests of the parts of a digest file.
class DigestFileHasher {
public:
    /// `keys` are needed during this call only.
    explicit DigestFileHasher(DigestKeys const& keys);

    /// The digest of so many bytes.
    Digest hash(void const* data, int bytes);

private:
    krym::CHasher_SHA256 m_hasher;
};

} // namespace kelm::host

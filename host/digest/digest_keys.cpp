#include "host/digest/digest_keys.h"

#include <algorithm>
#include <cassert>

#include "kelm/disk/disk.h"
#include "kelm/format/internal/little_endian.h"

namespace kelm::host {

namespace {

constexpr char kGrainKeyPurpose[] = "kelm digests: grains";
constexpr char kFileKeyPurpose[] = "kelm digests: file";
constexpr char kImageKeyPurpose[] = "kelm digests: image";

constexpr int kZeroStretchBytes = 4096;
constexpr std::array<unsigned char, kZeroStretchBytes> kZeroStretch{};

} // namespace

DigestKeys::DigestKeys(CVMDKDisk const& disk) : isKeyed(disk.isEncrypted()) {
    if (!isKeyed)
        return;
    disk.derivePurposeKey(kGrainKeyPurpose, grainKey);
    disk.derivePurposeKey(kFileKeyPurpose, fileKey);
    disk.derivePurposeKey(kImageKeyPurpose, imageKey);
}

// A hasher can neither be copied nor moved, hence the choice in one expression.
GrainHasher::GrainHasher(DigestKeys const& keys)
    : m_hasher(keys.isKeyed ? krym::CHasher_SHA256(keys.grainKey) : krym::CHasher_SHA256()),
      m_isKeyed(keys.isKeyed) {}

Digest GrainHasher::hash(__int64 grainIndex, void const* content, int bytes, int wholeBytes) {
    assert(grainIndex >= 0 && bytes >= 0);
    m_hasher.begin();
    if (m_isKeyed) {
        std::array<unsigned char, sizeof(grainIndex)> index{};
        storeLittleEndian(index.data(), static_cast<unsigned long long>(grainIndex));
        m_hasher.update(index.data(), static_cast<int>(index.size()));
    }
    m_hasher.update(content, std::min(bytes, wholeBytes));
    for (int done = bytes; done < wholeBytes; done += kZeroStretchBytes)
        m_hasher.update(kZeroStretch.data(), std::min(kZeroStretchBytes, wholeBytes - done));
    Digest digest;
    m_hasher.finish(digest.data());
    return digest;
}

DigestFileHasher::DigestFileHasher(DigestKeys const& keys)
    : m_hasher(keys.isKeyed ? krym::CHasher_SHA256(keys.fileKey) : krym::CHasher_SHA256()) {}

Digest DigestFileHasher::hash(void const* data, int bytes) {
    m_hasher.begin();
    m_hasher.update(data, bytes);
    Digest digest;
    m_hasher.finish(digest.data());
    return digest;
}

} // namespace kelm::host

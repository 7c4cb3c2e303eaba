#include "kelm/extent/internal/disk_key_hash.h"

#include <cstring>

namespace kelm {

yx::TBuffer<unsigned char> hashKey(yx::TBuffer<unsigned char> const& key) {
    krym::CDigestType_SHA256 digestType;
    yx::P<krym::IDigest> const digest = digestType.createDigest();
    digest->update(key.getData(), key.getUsed());
    digest->finish();
    yx::TBuffer<unsigned char> hash(digest->getSize(), -1);
    yx::copyMemory(hash.getData(), digest->getData(), static_cast<std::size_t>(hash.getUsed()));
    return hash;
}

bool isHashOfKey(yx::TBuffer<unsigned char> const& hash, yx::TBuffer<unsigned char> const& key) {
    yx::TBuffer<unsigned char> const expected = hashKey(key);
    return hash.getUsed() == expected.getUsed() &&
           std::memcmp(hash.getData(), expected.getData(),
                       static_cast<std::size_t>(hash.getUsed())) == 0;
}

} // namespace kelm

#include "host/transfer/known_digests.h"

#include <algorithm>

#include "host/transfer/plain_grains.h"

namespace kelm::host {

KnownDigests::KnownDigests(ChainDigests* known, SafeDisk const& disk, int workerCount)
    : m_known(known), m_disk(disk) {
    for (int worker = 0; known && worker < workerCount; ++worker)
        m_hashers.push_back(known->makeHashers());
}

void KnownDigests::find(GrainItem& item) {
    if (m_known) {
        item.ofChain = m_known->find(item.grainIndex);
        return;
    }
    item.ofChain = ChainDigests::Grain();
    item.ofChain.isKnown = false;
}

bool KnownDigests::isDamaged(GrainItem const& item, GrainItem::Buffer const& plain, bool ownHasKey,
                             int worker) {
    ChainDigests::Grain const& known = item.ofChain;
    if (!known.isKnown || known.holder < 0)
        return false;
    bool const isSameKind = item.hasDigest && !ownHasKey && m_known->arePlain(known.holder);
    return (isSameKind ? item.digest : hash(item, plain, worker)) != known.digest;
}

Digest KnownDigests::hash(GrainItem const& item, GrainItem::Buffer const& plain, int worker) {
    GrainHasher& hasher =
        *m_hashers[static_cast<std::size_t>(worker)][static_cast<std::size_t>(item.ofChain.holder)];
    int const bytes = bytesInDisk(m_disk, item.grainIndex);
    return hasher.hash(item.grainIndex, plain.getData(), std::min(plain.getUsed(), bytes), bytes);
}

void KnownDigests::verify(GrainItem const& item, GrainItem::Buffer const& plain, bool ownHasKey,
                          int worker) {
    if (isDamaged(item, plain, ownHasKey, worker))
        throw yx::CIOError(yx::CIOError::CorruptData,
                           "The content of the grain differs from its digest.", yx::CProps(),
                           nullptr);
}

} // namespace kelm::host

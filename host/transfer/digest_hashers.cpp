#include "host/transfer/digest_hashers.h"

#include <algorithm>
#include <cassert>

namespace kelm::host {

DigestHashers::DigestHashers(DigestKeys const& keys, SafeDisk& disk, int workerCount)
    : m_grainSizeBytes(disk.getGrainSizeBytes()), m_diskSizeBytes(disk.getSizeBytes()) {
    for (int worker = 0; worker < workerCount; ++worker)
        m_hashers.push_back(std::make_unique<GrainHasher>(keys));
}

Digest DigestHashers::hash(__int64 grainIndex, yx::TBuffer<unsigned char> const& plain,
                           int worker) {
    __int64 const wholeBytes =
        std::min(m_grainSizeBytes, m_diskSizeBytes - grainIndex * m_grainSizeBytes);
    assert(wholeBytes > 0);
    return m_hashers[static_cast<std::size_t>(worker)]->hash(
        grainIndex, plain.getData(), plain.getUsed(), static_cast<int>(wholeBytes));
}

} // namespace kelm::host

#include "host/disk/grain_ciphers.h"

#include <cassert>

namespace kelm::host {

GrainCiphers::GrainCiphers(SafeDisk& disk, int workerCount)
    : m_disk(disk), m_workerCount(workerCount) {
    assert(workerCount > 0);
    if (disk.getDisk().isEncrypted())
        m_own = &setOf(0);
}

GrainCiphers::Set const& GrainCiphers::setOf(int level) {
    auto const index = static_cast<std::size_t>(level);
    while (m_sets.size() <= index)
        m_sets.emplace_back();
    Set& ciphers = m_sets[index];
    if (!ciphers.empty())
        return ciphers;
    yx::P<CVMDKDisk> holder(&m_disk.getDisk());
    for (int parent = 0; parent < level; ++parent)
        holder = holder->getParentDisk();
    Set made;
    for (int worker = 0; worker < m_workerCount; ++worker)
        made.push_back(holder->createGrainCipher());
    ciphers = std::move(made);
    return ciphers;
}

GrainCiphers::Set const* GrainCiphers::tryRead(__int64 grainIndex,
                                               yx::TBuffer<unsigned char>& data) {
    int const level = m_own ? m_disk.tryReadEncipheredGrain(grainIndex, data) : -1;
    return level < 0 ? nullptr : &setOf(level);
}

} // namespace kelm::host

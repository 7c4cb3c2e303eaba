#include "host/transfer/result_cipher.h"

#include <cassert>

namespace kelm::host {

ResultCipher::ResultCipher(SafeDisk& disk, int workerCount)
    : m_disk(disk), m_ciphers(disk, workerCount) {}

void ResultCipher::encipher(GrainItem& item, int worker) const {
    if (!m_ciphers.getOwn() || !item.result)
        return;
    assert(!item.resultIsEnciphered);
    yx::P<GrainItem::Buffer> const target = item.result == item.aux2 ? item.aux1 : item.aux2;
    CVMDKGrainCipher& cipher = *(*m_ciphers.getOwn())[static_cast<std::size_t>(worker)];
    cipher.encipher(*item.result, item.grainIndex, *target);
    item.result = target;
    item.resultIsEnciphered = true;
}

void ResultCipher::store(GrainItem const& item) {
    assert(item.result && m_disk.isWholeGrain(item.grainIndex));
    if (item.resultIsEnciphered)
        m_disk.writeEncipheredGrain(item.grainIndex, *item.result);
    else
        m_disk.writePreparedGrain(item.grainIndex, *item.result);
}

} // namespace kelm::host

#include "host/transfer/unpreparer.h"

#include <cassert>
#include <utility>

#include "host/transfer/grain_place.h"
#include "host/transfer/plain_grains.h"

namespace kelm::host {

Unpreparer::Unpreparer(SafeDisk& disk, int workerCount)
    : m_disk(disk), m_ciphers(disk, workerCount), m_preparers(disk, workerCount) {}

void Unpreparer::read(GrainItem& item) {
    withGrainPlace(m_disk, item.grainIndex, [&] {
        item.inputCiphers = m_ciphers.tryRead(item.grainIndex, *item.input);
        item.inputIsPrepared =
            item.inputCiphers || m_disk.tryReadPreparedGrain(item.grainIndex, *item.input);
        if (!item.inputIsPrepared)
            readPlainGrain(m_disk, item.grainIndex, *item.input);
    });
}

void Unpreparer::decipher(GrainItem& item, int worker) {
    if (!item.inputCiphers)
        return;
    CVMDKGrainCipher& cipher = *(*item.inputCiphers)[static_cast<std::size_t>(worker)];
    cipher.decipher(*item.input, item.grainIndex, *item.aux2);
    std::swap(item.input, item.aux2);
    item.inputCiphers = nullptr;
}

yx::P<GrainItem::Buffer> Unpreparer::getPlain(GrainItem& item, int worker) {
    decipher(item, worker);
    assert(item.input->getUsed() > 0);
    if (!item.inputIsPrepared)
        return item.input;
    return m_preparers.of(worker).unprepareGrainData(item.input.get(), item.aux1.get());
}

} // namespace kelm::host

#include "host/transfer/unpreparer.h"

#include <cassert>

namespace kelm::host {

Unpreparer::Unpreparer(SafeDisk& disk, int workerCount) : m_preparers(disk, workerCount) {}

yx::P<GrainItem::Buffer> Unpreparer::getPlain(GrainItem const& item, int worker) {
    assert(item.input->getUsed() > 0);
    if (!item.inputIsPrepared)
        return item.input;
    return m_preparers.of(worker).unprepareGrainData(item.input.get(), item.aux1.get());
}

} // namespace kelm::host

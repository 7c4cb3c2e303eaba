#include "host/transfer/preparer_set.h"

#include <cassert>

namespace kelm::host {

PreparerSet::PreparerSet(SafeDisk& disk, int workerCount) {
    assert(workerCount > 0);
    for (int worker = 0; worker < workerCount; ++worker)
        m_preparers.push_back(disk.getDisk().createDataPreparer());
}

CVMDKDataPreparer& PreparerSet::of(int worker) {
    auto const index = static_cast<std::size_t>(worker);
    assert(index < m_preparers.size());
    return *m_preparers[index];
}

} // namespace kelm::host

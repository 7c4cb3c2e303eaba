#pragma once

#include <vector>

#include "host/disk/safe_disk.h"

namespace kelm::host {

/// The data preparers of a group of workers: one for each, since a preparer serves one thread. All
/// have the settings of one disk.
class PreparerSet {
public:
    /// Makes `workerCount` preparers for grains of `disk`, which need not outlive the set.
    PreparerSet(SafeDisk& disk, int workerCount);

    /// The preparer of a worker. For that worker's thread alone.
    CVMDKDataPreparer& of(int worker);

private:
    std::vector<yx::P<CVMDKDataPreparer>> m_preparers;
};

} // namespace kelm::host

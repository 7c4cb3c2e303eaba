#pragma once

#include <utility>
#include <vector>

#include "yx/base.h"

namespace kelm::host {

/// The grains of a disk that a finding has named, so that reading them need not be another one.
class KnownGrains {
public:
    /// Grains come in ascending order within an extent, and extents in the order of the disk;
    /// others are forgotten. So is what comes after a million stretches, for the sake of memory.
    void add(__int64 grainIndex);

    /// Whether the grain was added and is not forgotten.
    bool contains(__int64 grainIndex) const;

private:
    /// First and last grain of each stretch.
    std::vector<std::pair<__int64, __int64>> m_stretches;
};

} // namespace kelm::host

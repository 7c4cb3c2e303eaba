#pragma once

#include <vector>

#include "yx/base.h"

namespace kelm::host {

/// Remembers which sectors of a stretch of a file are taken; a bit for each.
class SectorMap {
public:
    /// The stretch; nothing of it is taken.
    SectorMap(__int64 startSectors, __int64 sizeSectors);

    /// Takes the part of a range that lies in the stretch. Returns the first sector that was taken
    /// before, -1 if none was.
    __int64 take(__int64 startSectors, __int64 sizeSectors);

private:
    __int64 m_startSectors;
    __int64 m_sizeSectors;
    std::vector<unsigned long long> m_words;
};

} // namespace kelm::host

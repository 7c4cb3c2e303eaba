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

    /// Whether a part of a range lies in the stretch.
    bool reaches(__int64 startSectors, __int64 sizeSectors) const {
        return startSectors < m_startSectors + m_sizeSectors &&
               startSectors + sizeSectors > m_startSectors;
    }

    /// The first sector of a range that is taken; -1 if none is, or none in the stretch.
    __int64 findTaken(__int64 startSectors, __int64 endSectors) const;

private:
    __int64 m_startSectors;
    __int64 m_sizeSectors;
    std::vector<unsigned long long> m_words;
};

} // namespace kelm::host

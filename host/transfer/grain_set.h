#pragma once

#include <cassert>
#include <functional>
#include <vector>

#include "host/disk/safe_disk.h"
#include "host/system/cancel.h"

namespace kelm::host {

/// Some of the grains of a disk. Takes a bit for each grain that the disk has.
class GrainSet {
public:
    /// None of `grainCount` grains.
    explicit GrainSet(__int64 grainCount) : m_isIn(static_cast<std::size_t>(grainCount)) {}

    /// Puts a grain in.
    void add(__int64 grainIndex) { m_isIn[placeOf(grainIndex)] = true; }

    /// Whether a grain is in.
    bool contains(__int64 grainIndex) const { return m_isIn[placeOf(grainIndex)]; }

    /// How many grains the disk has.
    __int64 getGrainCount() const { return static_cast<__int64>(m_isIn.size()); }

    /// The first grain from `grainIndex` on that is in; the grain count if there is none.
    __int64 findNext(__int64 grainIndex) const {
        while (grainIndex < getGrainCount() && !contains(grainIndex))
            ++grainIndex;
        return grainIndex;
    }

    /// Whether no grain is in.
    bool isEmpty() const { return findNext(0) == getGrainCount(); }

private:
    std::size_t placeOf(__int64 grainIndex) const {
        assert(grainIndex >= 0 && grainIndex < getGrainCount());
        return static_cast<std::size_t>(grainIndex);
    }

    std::vector<bool> m_isIn;
};

/// The grains of a disk for which `isChosen` is true. It is asked about each, in order. `cancel`
/// may be null.
GrainSet chooseGrains(SafeDisk& disk, CancelFlag const* cancel,
                      std::function<bool(__int64 grainIndex)> const& isChosen);

} // namespace kelm::host

#pragma once

#include "yx/base.h"

namespace kelm::host {

/// A random part of the grains of a disk. The same seed chooses the same grains.
class GrainSample {
public:
    /// All grains.
    GrainSample() = default;

    /// Each grain with a chance of so many percent, above 0 and at most 100.
    GrainSample(double percent, unsigned long long seed);

    /// Whether a grain is among them.
    bool contains(__int64 grainIndex) const;

    /// What a check of so many random grains shows that has found none damaged: with 95 percent
    /// certainty, no more than this part of all grains is damaged, in percent.
    static double calcMaxDamagedPercent(__int64 checkedGrains);

private:
    bool m_hasAll = true;
    unsigned long long m_seed = 0;

    /// Of numbers from 0 to 2^64 - 1.
    unsigned long long m_endNumber = 0;
};

} // namespace kelm::host

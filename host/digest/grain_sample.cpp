#include "host/digest/grain_sample.h"

#include <cassert>
#include <cmath>

namespace kelm::host {

namespace {

constexpr double kAllPercent = 100;

/// How many numbers of 64 bits there are.
constexpr double kNumberCount = 18446744073709551616.0;

constexpr double kUncertainty = 0.05;

/// The finalizer of SplitMix64: every bit of the result depends on every bit of the number.
unsigned long long mix(unsigned long long number) {
    number = (number ^ number >> 30) * 0xBF58476D1CE4E5B9ULL;
    number = (number ^ number >> 27) * 0x94D049BB133111EBULL;
    return number ^ number >> 31;
}

} // namespace

GrainSample::GrainSample(double percent, unsigned long long seed)
    : m_hasAll(percent >= kAllPercent), m_seed(seed) {
    assert(percent > 0);
    if (!m_hasAll)
        m_endNumber = static_cast<unsigned long long>(percent / kAllPercent * kNumberCount);
}

bool GrainSample::contains(__int64 grainIndex) const {
    return m_hasAll || mix(mix(m_seed) + static_cast<unsigned long long>(grainIndex)) < m_endNumber;
}

double GrainSample::calcMaxDamagedPercent(__int64 checkedGrains) {
    if (checkedGrains < 1)
        return kAllPercent;
    return kAllPercent * (1 - std::pow(kUncertainty, 1 / static_cast<double>(checkedGrains)));
}

} // namespace kelm::host

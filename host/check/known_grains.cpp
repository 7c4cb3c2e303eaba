#include "host/check/known_grains.h"

#include <algorithm>
#include <limits>

namespace kelm::host {

namespace {

constexpr std::size_t kMaxStretches = 1 << 20;

} // namespace

void KnownGrains::add(__int64 grainIndex) {
    if (!m_stretches.empty()) {
        __int64& last = m_stretches.back().second;
        if (grainIndex <= last)
            return;
        if (grainIndex == last + 1) {
            last = grainIndex;
            return;
        }
    }
    if (m_stretches.size() < kMaxStretches)
        m_stretches.emplace_back(grainIndex, grainIndex);
}

bool KnownGrains::contains(__int64 grainIndex) const {
    auto const behind =
        std::upper_bound(m_stretches.begin(), m_stretches.end(),
                         std::pair(grainIndex, std::numeric_limits<__int64>::max()));
    return behind != m_stretches.begin() && std::prev(behind)->second >= grainIndex;
}

} // namespace kelm::host

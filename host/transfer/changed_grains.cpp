#include "host/transfer/changed_grains.h"

#include <algorithm>
#include <cassert>

namespace kelm::host {

ChangedGrains::ChangedGrains(std::vector<ImageRange> const& ranges, __int64 grainSizeBytes) {
    std::vector<Run> runs;
    for (ImageRange const& range : ranges) {
        assert(range.startBytes >= 0);
        if (range.startBytes < range.endBytes)
            runs.push_back(
                {range.startBytes / grainSizeBytes, (range.endBytes - 1) / grainSizeBytes + 1});
    }
    std::sort(runs.begin(), runs.end(),
              [](Run const& left, Run const& right) { return left.first < right.first; });
    for (Run const& run : runs) {
        if (!m_runs.empty() && run.first <= m_runs.back().end)
            m_runs.back().end = std::max(m_runs.back().end, run.end);
        else
            m_runs.push_back(run);
    }
}

/// The first run that does not end before a grain.
std::vector<ChangedGrains::Run>::const_iterator ChangedGrains::findRun(__int64 grainIndex) const {
    return std::upper_bound(m_runs.begin(), m_runs.end(), grainIndex,
                            [](__int64 index, Run const& run) { return index < run.end; });
}

bool ChangedGrains::isChanged(__int64 grainIndex) const {
    auto const run = findRun(grainIndex);
    return run != m_runs.end() && run->first <= grainIndex;
}

__int64 ChangedGrains::findNextToRead(__int64 grainIndex, __int64 endGrainIndex) const {
    auto const run = findRun(grainIndex);
    __int64 const nextChanged =
        run == m_runs.end() ? endGrainIndex : std::max(run->first, grainIndex);
    __int64 const end = std::min(nextChanged, endGrainIndex);
    if (m_sample) {
        for (__int64 index = grainIndex; index < end; ++index) {
            if (m_sample->contains(index))
                return index;
        }
    }
    return nextChanged < endGrainIndex ? nextChanged : -1;
}

} // namespace kelm::host

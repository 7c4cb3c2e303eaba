#include "host/transfer/grain_set.h"

#include <algorithm>

namespace kelm::host {

namespace {

/// How often a signal is looked for, in grains that are looked at.
constexpr __int64 kChoiceCancelInterval = 4096;

} // namespace

void GrainSet::add(__int64 grainIndex) {
    m_pieces[pieceOf(grainIndex)].add(inPiece(grainIndex));
    assert(contains(grainIndex));
}

__int64 GrainSet::findNext(__int64 grainIndex) const {
    assert(grainIndex >= 0);
    while (grainIndex < m_grainCount) {
        __int64 const pieceStart = grainIndex - inPiece(grainIndex);
        int const found = m_pieces[pieceOf(grainIndex)].findNext(inPiece(grainIndex));
        if (found < GrainPiece::kGrains)
            return pieceStart + found;
        grainIndex = pieceStart + GrainPiece::kGrains;
    }
    return m_grainCount;
}

void GrainSet::clear() {
    std::fill(m_pieces.begin(), m_pieces.end(), GrainPiece());
}

GrainSet chooseGrains(SafeDisk& disk, CancelFlag const* cancel,
                      std::function<bool(__int64 grainIndex)> const& isChosen,
                      CountGrains const& countOthers) {
    GrainSet grains(disk.getGrainCount());
    __int64 looks = 0;
    for (__int64 grain = 0; grain < grains.getGrainCount();) {
        if (cancel && looks++ % kChoiceCancelInterval == 0)
            cancel->check();
        if (isChosen(grain)) {
            grains.add(grain++);
            continue;
        }
        __int64 const others = countOthers ? countOthers(grain, grains.getGrainCount() - grain) : 0;
        grain += std::max<__int64>(others, 1);
    }
    return grains;
}

} // namespace kelm::host

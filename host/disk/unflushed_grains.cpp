#include "host/disk/unflushed_grains.h"

#include <cassert>

namespace kelm::host {

namespace {

int inPiece(__int64 grainIndex) {
    return static_cast<int>(grainIndex % GrainPiece::kGrains);
}

} // namespace

void UnflushedGrains::add(__int64 grainIndex) {
    assert(grainIndex >= 0);
    m_pieces[grainIndex / GrainPiece::kGrains].add(inPiece(grainIndex));
    assert(contains(grainIndex));
}

bool UnflushedGrains::contains(__int64 grainIndex) const {
    auto const piece = m_pieces.find(grainIndex / GrainPiece::kGrains);
    return piece != m_pieces.end() && piece->second.contains(inPiece(grainIndex));
}

void UnflushedGrains::clear() {
    m_pieces.clear();
    m_hasFailure = false;
}

} // namespace kelm::host

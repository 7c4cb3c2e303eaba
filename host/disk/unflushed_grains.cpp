#include "host/disk/unflushed_grains.h"

#include <cassert>

namespace kelm::host {

namespace {

constexpr __int64 kGrainsInPiece = 65536;

} // namespace

void UnflushedGrains::add(__int64 grainIndex) {
    assert(grainIndex >= 0);
    std::vector<bool>& piece = m_pieces[grainIndex / kGrainsInPiece];
    if (piece.empty())
        piece.resize(kGrainsInPiece);
    piece[static_cast<std::size_t>(grainIndex % kGrainsInPiece)] = true;
    assert(contains(grainIndex));
}

bool UnflushedGrains::contains(__int64 grainIndex) const {
    auto const piece = m_pieces.find(grainIndex / kGrainsInPiece);
    return piece != m_pieces.end() &&
           piece->second[static_cast<std::size_t>(grainIndex % kGrainsInPiece)];
}

void UnflushedGrains::clear() {
    m_pieces.clear();
    m_hasFailure = false;
}

} // namespace kelm::host

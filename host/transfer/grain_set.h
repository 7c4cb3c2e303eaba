#pragma once

#include <cassert>
#include <functional>
#include <vector>

#include "host/disk/grain_piece.h"
#include "host/disk/safe_disk.h"
#include "host/system/cancel.h"

namespace kelm::host {

/// Some of the grains of a disk. Takes memory by those that are in, at most a bit for each grain of
/// the disk, and 48 bytes for each `GrainPiece::kGrains` grains of it.
class GrainSet {
public:
    /// None of `grainCount` grains.
    explicit GrainSet(__int64 grainCount)
        : m_grainCount(grainCount),
          m_pieces(static_cast<std::size_t>((grainCount + GrainPiece::kGrains - 1) /
                                            GrainPiece::kGrains)) {}

    /// Puts a grain in.
    void add(__int64 grainIndex);

    /// Whether a grain is in.
    bool contains(__int64 grainIndex) const {
        return m_pieces[pieceOf(grainIndex)].contains(inPiece(grainIndex));
    }

    /// How many grains the disk has.
    __int64 getGrainCount() const { return m_grainCount; }

    /// The first grain from `grainIndex` on that is in; the grain count if there is none.
    __int64 findNext(__int64 grainIndex) const;

    /// Whether no grain is in.
    bool isEmpty() const { return findNext(0) == getGrainCount(); }

    /// Takes all grains out.
    void clear();

private:
    static int inPiece(__int64 grainIndex) {
        return static_cast<int>(grainIndex % GrainPiece::kGrains);
    }

    std::size_t pieceOf(__int64 grainIndex) const {
        assert(grainIndex >= 0 && grainIndex < getGrainCount());
        return static_cast<std::size_t>(grainIndex / GrainPiece::kGrains);
    }

    __int64 m_grainCount;
    std::vector<GrainPiece> m_pieces;
};

/// How many grains from one on, at most so many, are known to have something in common; 0 says
/// nothing.
using CountGrains = std::function<__int64(__int64 grainIndex, __int64 maxGrains)>;

/// The grains of a disk for which `isChosen` is true. It is asked about each, in order, but for
/// those behind one that is not chosen of which `countOthers`, which may be empty and is asked
/// there, knows that they are not chosen either. `cancel` may be null.
GrainSet chooseGrains(SafeDisk& disk, CancelFlag const* cancel,
                      std::function<bool(__int64 grainIndex)> const& isChosen,
                      CountGrains const& countOthers = {});

} // namespace kelm::host

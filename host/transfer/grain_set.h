#pragma once

#include <cassert>
#include <functional>
#include <vector>

#include "host/disk/safe_disk.h"
#include "host/system/cancel.h"

namespace kelm::host {

/// Some of the grains of a disk. Takes a bit for each grain, in pieces of 4 KiB, where some are in,
/// and 24 bytes for each other piece.
class GrainSet {
public:
    /// None of `grainCount` grains.
    explicit GrainSet(__int64 grainCount)
        : m_grainCount(grainCount),
          m_pieces(static_cast<std::size_t>((grainCount + kPieceGrains - 1) / kPieceGrains)) {}

    /// Puts a grain in.
    void add(__int64 grainIndex);

    /// Whether a grain is in.
    bool contains(__int64 grainIndex) const {
        Piece const& piece = m_pieces[pieceOf(grainIndex)];
        return !piece.empty() && (piece[wordOf(grainIndex)] & bitOf(grainIndex)) != 0;
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
    using Word = unsigned long long;
    using Piece = std::vector<Word>;

    static constexpr __int64 kPieceGrains = 32768;
    static constexpr __int64 kWordGrains = 64;

    static std::size_t wordOf(__int64 grainIndex) {
        return static_cast<std::size_t>(grainIndex % kPieceGrains / kWordGrains);
    }
    static Word bitOf(__int64 grainIndex) { return Word{1} << (grainIndex % kWordGrains); }

    std::size_t pieceOf(__int64 grainIndex) const {
        assert(grainIndex >= 0 && grainIndex < getGrainCount());
        return static_cast<std::size_t>(grainIndex / kPieceGrains);
    }

    __int64 m_grainCount;

    /// Empty where no grain is in.
    std::vector<Piece> m_pieces;
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

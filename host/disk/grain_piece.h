#pragma once

#include <vector>

namespace kelm::host {

/// Some of the grains of a piece of a disk, by their indexes in the piece. As long as they are few
/// they take two bytes each, and from then on a bit for each grain of the piece.
class GrainPiece {
public:
    /// How many grains a piece has: 2 GiB with grains of 64 KiB.
    static constexpr int kGrains = 32768;

    /// Whether no grain is in.
    bool isEmpty() const { return m_few.empty() && m_bits.empty(); }

    /// Puts a grain in. Takes the least time in rising order.
    void add(int index);

    /// Whether a grain is in.
    bool contains(int index) const;

    /// The first grain from `index` on that is in; `kGrains` if there is none.
    int findNext(int index) const;

private:
    using Word = unsigned long long;

    void addBit(int index);
    void becomeBits();

    /// In rising order; empty once there are bits.
    std::vector<unsigned short> m_few;

    /// Empty as long as the grains are few.
    std::vector<Word> m_bits;
};

} // namespace kelm::host

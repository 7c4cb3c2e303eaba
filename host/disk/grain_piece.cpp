#include "host/disk/grain_piece.h"

#include <algorithm>
#include <bit>
#include <cassert>

namespace kelm::host {

namespace {

constexpr int kWordGrains = 64;

/// As many take half of what the bits do, and no more than those while the list grows.
constexpr std::size_t kFewGrains = 1024;

static_assert(kFewGrains * 2 * sizeof(unsigned short) <= GrainPiece::kGrains / 8);
static_assert(GrainPiece::kGrains - 1 <= 0xFFFF);

std::size_t wordOf(int index) {
    return static_cast<std::size_t>(index / kWordGrains);
}

unsigned long long bitOf(int index) {
    return 1ULL << static_cast<unsigned int>(index % kWordGrains);
}

} // namespace

void GrainPiece::add(int index) {
    assert(index >= 0 && index < kGrains);
    if (!m_bits.empty()) {
        addBit(index);
        return;
    }
    auto const grain = static_cast<unsigned short>(index);
    if (m_few.empty() || m_few.back() < grain) {
        m_few.push_back(grain);
    } else {
        auto const place = std::lower_bound(m_few.begin(), m_few.end(), grain);
        if (*place != grain)
            m_few.insert(place, grain);
    }
    if (m_few.size() > kFewGrains)
        becomeBits();
}

void GrainPiece::addBit(int index) {
    m_bits[wordOf(index)] |= bitOf(index);
}

void GrainPiece::becomeBits() {
    m_bits.resize(kGrains / kWordGrains);
    for (unsigned short const grain : m_few)
        addBit(grain);
    m_few = {};
}

bool GrainPiece::contains(int index) const {
    assert(index >= 0 && index < kGrains);
    if (!m_bits.empty())
        return (m_bits[wordOf(index)] & bitOf(index)) != 0;
    return std::binary_search(m_few.begin(), m_few.end(), static_cast<unsigned short>(index));
}

int GrainPiece::findNext(int index) const {
    assert(index >= 0 && index < kGrains);
    if (m_bits.empty()) {
        auto const found =
            std::lower_bound(m_few.begin(), m_few.end(), static_cast<unsigned short>(index));
        return found == m_few.end() ? kGrains : *found;
    }
    // The grain, and those behind it in its word.
    Word word = m_bits[wordOf(index)] & ~(bitOf(index) - 1);
    std::size_t number = wordOf(index);
    while (word == 0 && ++number < m_bits.size())
        word = m_bits[number];
    return word == 0 ? kGrains : static_cast<int>(number) * kWordGrains + std::countr_zero(word);
}

} // namespace kelm::host

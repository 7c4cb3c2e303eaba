#include "host/disk/sector_map.h"

#include <algorithm>
#include <bit>
#include <cassert>

namespace kelm::host {

namespace {

constexpr __int64 kWordBits = 64;

/// `count` set bits, of which the lowest is `first`.
unsigned long long makeMask(__int64 first, __int64 count) {
    assert(count >= 1 && first >= 0 && first + count <= kWordBits);
    return ~0ULL >> (kWordBits - count) << first;
}

} // namespace

SectorMap::SectorMap(__int64 startSectors, __int64 sizeSectors)
    : m_startSectors(startSectors),
      m_sizeSectors(sizeSectors),
      m_words(static_cast<std::size_t>((sizeSectors + kWordBits - 1) / kWordBits)) {
    assert(startSectors >= 0 && sizeSectors >= 0);
}

__int64 SectorMap::take(__int64 startSectors, __int64 sizeSectors) {
    __int64 const end = std::min(startSectors + sizeSectors - m_startSectors, m_sizeSectors);
    __int64 firstTaken = -1;
    for (__int64 bit = std::max<__int64>(startSectors - m_startSectors, 0); bit < end;) {
        __int64 const inWord = bit % kWordBits;
        __int64 const count = std::min(kWordBits - inWord, end - bit);
        unsigned long long const mask = makeMask(inWord, count);
        unsigned long long& word = m_words[static_cast<std::size_t>(bit / kWordBits)];
        if (firstTaken == -1 && (word & mask) != 0)
            firstTaken = m_startSectors + bit - inWord + std::countr_zero(word & mask);
        word |= mask;
        bit += count;
    }
    return firstTaken;
}

__int64 SectorMap::findTaken(__int64 startSectors, __int64 endSectors) const {
    __int64 const end = std::min(endSectors - m_startSectors, m_sizeSectors);
    for (__int64 bit = std::max<__int64>(startSectors - m_startSectors, 0); bit < end;) {
        __int64 const inWord = bit % kWordBits;
        __int64 const count = std::min(kWordBits - inWord, end - bit);
        unsigned long long const word =
            m_words[static_cast<std::size_t>(bit / kWordBits)] & makeMask(inWord, count);
        if (word != 0)
            return m_startSectors + bit - inWord + std::countr_zero(word);
        bit += count;
    }
    return -1;
}

} // namespace kelm::host

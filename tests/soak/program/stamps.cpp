#include "tests/soak/program/stamps.h"

#include <array>
#include <cstring>

namespace soak {

namespace {

constexpr int kWords = kSectorSizeBytes / 8;
using Words = std::array<std::uint64_t, kWords>;

std::uint64_t mix(std::uint64_t value) {
    value = (value ^ value >> 30) * 0xbf58476d1ce4e5b9u;
    value = (value ^ value >> 27) * 0x94d049bb133111ebu;
    return value ^ value >> 31;
}

Words makeWords(int sector, Stamp stamp) {
    Words words{};
    if (stamp == 0)
        return words;
    std::uint64_t const name = std::uint64_t{stamp} << 32 | static_cast<std::uint32_t>(sector);
    bool const isNoise = stamp % 3 == 0;
    for (std::uint64_t i = 0; i < kWords; ++i)
        words[i] = isNoise ? mix(name + (i << 20)) : name;
    return words;
}

} // namespace

void fillSectors(unsigned char* target, int firstSector, int sectorCount, Stamp stamp) {
    for (int i = 0; i < sectorCount; ++i) {
        Words const words = makeWords(firstSector + i, stamp);
        std::memcpy(target + i * kSectorSizeBytes, words.data(), kSectorSizeBytes);
    }
}

bool holdsStamp(unsigned char const* bytes, int sector, Stamp stamp) {
    Words const words = makeWords(sector, stamp);
    return std::memcmp(bytes, words.data(), kSectorSizeBytes) == 0;
}

} // namespace soak

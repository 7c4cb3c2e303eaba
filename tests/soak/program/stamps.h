#pragma once

#include <cstdint>

#include "yx/buffer.h"

namespace soak {

/// Names what a sector holds: a number drawn for each write. 0 stands for zeros.
using Stamp = std::uint32_t;

constexpr int kSectorSizeBytes = 512;

/// Fills `sectorCount` sectors from `firstSector` on with what `stamp` stands for in each. Every
/// third stamp stands for content that no compressor makes smaller.
void fillSectors(unsigned char* target, int firstSector, int sectorCount, Stamp stamp);

/// Whether the sector holds what `stamp` stands for there.
bool holdsStamp(unsigned char const* bytes, int sector, Stamp stamp);

} // namespace soak

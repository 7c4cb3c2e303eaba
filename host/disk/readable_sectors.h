#pragma once

#include <vector>

#include "yx/stream.h"

namespace kelm::host {

/// Sectors of a file as far as they can be read.
struct ReadableSectors {
    /// All of them; zeros for those that cannot be read.
    std::vector<unsigned char> bytes;

    /// Which ones could be read.
    std::vector<bool> isReadable;
};

/// Reads `count` sectors from `sector` on. Those that lie outside the file or whose reading fails
/// with a `yx::CIOError` are not readable; one of them spoils no other. `sector` may be anything.
ReadableSectors readReadableSectors(yx::IIOStream& stream, __int64 sector, __int64 count);

/// Reads what there is of a sector into `target`, which has room for it: all of it, or the bytes
/// before the end of a file that ends in it. Returns how many bytes; 0 for a sector outside the
/// file, or whose reading fails with a `yx::CIOError`. `sector` may be anything.
int readSectorToEnd(yx::IIOStream& stream, __int64 sector, unsigned char* target);

} // namespace kelm::host

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

} // namespace kelm::host

#pragma once

#include <cstddef>
#include <vector>

#include "host/transfer/grain_item.h"

namespace kelm::host {

/// Grains of an export that one worker decodes and writes together: those that a disk holds in one
/// unit of the image, in the order of their indexes. There may be gaps between them.
struct ExportRun {
    /// Where units of the image begin and end. A file system takes memory by the length of a write,
    /// as long as that lies within such a unit, so a few large writes cost less than many small ones:
    /// on ext4, 64 KiB at a time take a quarter longer. With 1 MiB, what a virtual machine has given
    /// back to its host comes into use, and is slow.
    static constexpr __int64 kUnitBytes = 256 << 10;

    /// No more than one system call can take, and few enough that many workers get some.
    static constexpr __int64 kMaxGrains = 64;

    /// All items of the run; the first `count` are in use.
    std::vector<GrainItem> items;
    std::size_t count = 0;

    /// How many grains have been decoded; the next one is that which failed, if one did.
    std::size_t decodedCount = 0;
};

} // namespace kelm::host

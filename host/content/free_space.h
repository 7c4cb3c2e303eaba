#pragma once

#include <memory>
#include <string>
#include <vector>

#include "yx/base.h"

namespace kelm::host {

/// Bytes from one place up to another.
struct Stretch {
    /// The first byte, and what is behind the last.
    __int64 startBytes = 0;
    __int64 endBytes = 0;

    /// Whether there is none.
    bool isEmpty() const { return startBytes >= endBytes; }
};

/// Which bytes of an image nobody uses.
class FreeSpace {
public:
    virtual ~FreeSpace() = default;

    /// The first stretch of free bytes within that one; an empty one if there is none.
    virtual Stretch findFree(Stretch within) const = 0;
};

/// What file systems say about an image.
struct FoundFreeSpace {
    /// Null if nothing is known to be free.
    std::unique_ptr<FreeSpace> space;

    /// Why that of some file systems is not used, in sentences.
    std::vector<std::string> refusals;
};

/// Whether this build can read which blocks are free, by libext2fs.
bool canFindFreeSpace();

/// Finds out which blocks of a raw image the file systems on it, those of partitions included, say
/// are free: those of ext2, ext3 and ext4. A file system that was not cleanly unmounted, has errors
/// on record, or whose bitmap does not agree with its count of free blocks or with its checksum, is
/// refused: what it says may be wrong. Bitmaps stay in memory as long as the result.
///
/// Others must not write to the image before all of it has been read. Errors are those of reading a
/// partition table. `CIOError` `NotSupported` "This build of kelm cannot tell free blocks: it was
/// made without libext2fs." where `canFindFreeSpace` is false.
FoundFreeSpace findFreeSpace(std::string const& path);

} // namespace kelm::host

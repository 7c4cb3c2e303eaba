#include "host/disk/extent_recovery.h"

#include <algorithm>
#include <cassert>
#include <cstring>

#include "host/disk/extent_creation.h"
#include "host/disk/slot_repair.h"
#include "host/disk/trail_repair.h"
#include "yx/log.h"
#include "yx/memory_file_system.h"

namespace kelm::host {

namespace {

/// Whether a file holds nothing but parts of `whole`, its first sector aside.
bool isPartOf(yx::TBuffer<unsigned char> const& whole, yx::TBuffer<unsigned char> const& part) {
    assert(part.getUsed() <= whole.getUsed());
    for (int at = kSectorSizeBytes; at < part.getUsed(); at += kSectorSizeBytes) {
        auto const size =
            static_cast<std::size_t>(std::min<int>(kSectorSizeBytes, part.getUsed() - at));
        if (!yx::isAllZero(part.getData() + at, size) &&
            std::memcmp(part.getData() + at, whole.getData() + at, size) != 0)
            return false;
    }
    return true;
}

bool isUnfinished(yx::IFileSystem* fileSystem, DiskExtent const& extent,
                  yx::TBuffer<unsigned char> const& keyHash) {
    auto const empty = yx::makeObject<yx::CMemoryFileSystem>();
    createExtentFile(empty.get(), extent, keyHash);
    yx::TBuffer<unsigned char> const whole = empty->getFile(extent.uri);
    yx::P<yx::IIOStream> const stream =
        openVMDKFileStream(fileSystem, extent.uri, yx::IIOStream::ReadOnly);
    if (stream->getLength() > whole.getUsed())
        return false;
    yx::TBuffer<unsigned char> part(static_cast<int>(stream->getLength()), -1);
    stream->read(part.getData(), part.getUsed());
    bool const isWhole = part.getUsed() == whole.getUsed() &&
                         std::memcmp(part.getData(), whole.getData(),
                                     static_cast<std::size_t>(whole.getUsed())) == 0;
    return !isWhole && isPartOf(whole, part);
}

} // namespace

void removeIfUnfinished(yx::IFileSystem* fileSystem, DiskExtent const& extent,
                        yx::TBuffer<unsigned char> const& keyHash) {
    if (!fileSystem->fileExists(extent.uri) || !isUnfinished(fileSystem, extent, keyHash))
        return;
    yx::logWarning("Removing the unfinished extent file '" + extent.uri.toString(true) +
                   "'. It holds no data.");
    fileSystem->deleteFile(extent.uri, true);
}

void repairExtentFile(yx::IFileSystem* fileSystem, DiskExtent const& extent) {
    if (!extent.isCompressed)
        return;
    yx::P<yx::IIOStream> const stream =
        openVMDKFileStream(fileSystem, extent.uri, yx::IIOStream::ReadWrite);
    if (repairTrail(*stream))
        yx::logWarning("Repaired the end of the extent file '" + extent.uri.toString(true) + "'.");
    __int64 const count = repairSlots(*stream, extent);
    if (count > 0) {
        yx::logWarning("Repaired the sizes of " + yx::toString(count) +
                       " slots in the extent file '" + extent.uri.toString(true) + "'.");
    }
    stream->close();
}

} // namespace kelm::host

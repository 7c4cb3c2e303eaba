#include "host/disk/extent_recovery.h"

#include <algorithm>
#include <cassert>
#include <cstring>

#include "host/disk/extent_creation.h"
#include "host/disk/extent_names.h"
#include "host/disk/regular_places.h"
#include "host/disk/slot_repair.h"
#include "host/disk/trail_repair.h"
#include "host/store/file_moving.h"
#include "kelm/format/internal/little_endian.h"
#include "kelm/kelm.h"
#include "yx/log.h"

namespace kelm::host {

namespace {

constexpr char kSuffix[] = "unfinished";

/// Whether a file that is no longer than `whole` is empty or begins like that, and holds nothing
/// else than parts of it.
bool isPartOf(yx::TBuffer<unsigned char> const& whole, yx::TBuffer<unsigned char> const& part) {
    assert(part.getUsed() <= whole.getUsed());
    for (int at = 0; at < part.getUsed(); at += kSectorSizeBytes) {
        auto const size =
            static_cast<std::size_t>(std::min<int>(kSectorSizeBytes, part.getUsed() - at));
        bool const isMissing = at > 0 && yx::isAllZero(part.getData() + at, size);
        if (!isMissing && std::memcmp(part.getData() + at, whole.getData() + at, size) != 0)
            return false;
    }
    return true;
}

bool isWhole(yx::TBuffer<unsigned char> const& whole, yx::TBuffer<unsigned char> const& part) {
    return part.getUsed() == whole.getUsed() &&
           std::memcmp(part.getData(), whole.getData(),
                       static_cast<std::size_t>(whole.getUsed())) == 0;
}

/// The length of what `makeExtentFileContent` makes.
__int64 calcEmptyExtentBytes(DiskExtent const& extent) {
    __int64 const grainCount =
        (extent.getSizeBytes() + extent.grainSizeBytes - 1) / extent.grainSizeBytes;
    RegularPlaces const places = calcRegularPlaces(
        {getVMDKTableCount(grainCount), extent.isCompressed, 1, extent.getGrainSizeSectors()});
    return (places.overheadSectors + (extent.isCompressed ? kTrailSectors : 0)) * kSectorSizeBytes;
}

bool isPartOfEmptyExtent(yx::IFileSystem* fileSystem, DiskExtent const& extent,
                         yx::TBuffer<unsigned char> const& keyHash) {
    yx::P<yx::IIOStream> const stream =
        openVMDKFileStream(fileSystem, extent.uri, yx::IIOStream::ReadOnly);
    __int64 const lengthBytes = stream->getLength();
    if (lengthBytes == 0)
        return true;
    if (lengthBytes > calcEmptyExtentBytes(extent))
        return false;
    yx::TBuffer<unsigned char> const whole = makeExtentFileContent(extent, keyHash);
    assert(whole.getUsed() == calcEmptyExtentBytes(extent));
    yx::TBuffer<unsigned char> part(static_cast<int>(lengthBytes), -1);
    stream->read(part.getData(), part.getUsed());
    return isPartOf(whole, part) && !isWhole(whole, part);
}

bool beginsAsExtent(yx::IIOStream& stream) {
    unsigned char magic[sizeof(unsigned int)] = {};
    stream.seek(0);
    stream.readLax(magic, sizeof magic);
    stream.seek(0);
    auto const value = loadLittleEndian<unsigned int>(magic);
    return value == kHeaderMagic || value == kEncryptionExtensionHeaderMagic;
}

} // namespace

bool isUnfinishedExtent(yx::IFileSystem* fileSystem, yx::CURI const& mainFileURI,
                        DiskExtent const& extent, yx::TBuffer<unsigned char> const& keyHash) {
    return isExtentName(mainFileURI, extent.uri) && fileSystem->fileExists(extent.uri) &&
           isPartOfEmptyExtent(fileSystem, extent, keyHash);
}

void moveAsideIfUnfinished(yx::IFileSystem* fileSystem, yx::CURI const& mainFileURI,
                           DiskExtent const& extent, yx::TBuffer<unsigned char> const& keyHash) {
    if (!isUnfinishedExtent(fileSystem, mainFileURI, extent, keyHash))
        return;
    assert(extent.uri != mainFileURI);
    yx::CURI const target = moveAside(fileSystem, extent.uri, kSuffix);
    yx::logWarning("Moved the unfinished extent file '" + extent.uri.toString(true) + "' to '" +
                   target.toString(true) + "'. It holds no data.");
}

void repairExtentFile(yx::IFileSystem* fileSystem, DiskExtent const& extent) {
    if (!extent.isCompressed)
        return;
    yx::P<yx::IIOStream> const stream =
        openVMDKFileStream(fileSystem, extent.uri, yx::IIOStream::ReadWrite);
    if (!beginsAsExtent(*stream))
        return;
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

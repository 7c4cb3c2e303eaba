#include "host/transfer/exact_size.h"

#include <algorithm>
#include <cassert>
#include <optional>

#include "host/disk/disk_record.h"
#include "host/transfer/grain_place.h"
#include "host/transfer/plain_grains.h"
#include "yx/error.h"
#include "yx/number.h"

namespace kelm::host {

namespace {

std::optional<__int64> readRecord(SafeDisk& disk) {
    yx::P<CVMDKDescriptor> const descriptor = disk.getDisk().getDescriptor();
    try {
        return DiskRecord(*descriptor).getImageBytes(disk.getSizeBytes());
    } catch (yx::CIOError& error) {
        error.getParams().add("uri", disk.getDisk().getMainFileURI().toString(true));
        throw;
    }
}

bool isZeroBehind(SafeDisk& disk, __int64 positionBytes) {
    __int64 const grainSizeBytes = disk.getGrainSizeBytes();
    yx::TBuffer<unsigned char> grain;
    for (__int64 index = positionBytes / grainSizeBytes; index < disk.getGrainCount(); ++index) {
        if (!disk.isGrainWritten(index)) {
            __int64 const unwritten =
                countUnwrittenGrains(disk, index, disk.getGrainCount() - index);
            index += std::max<__int64>(unwritten - 1, 0);
            continue;
        }
        withGrainPlace(disk, index, [&] { readPlainGrain(disk, index, grain); });
        auto const skippedBytes =
            static_cast<int>(std::max<__int64>(positionBytes - index * grainSizeBytes, 0));
        if (!yx::isAllZero(grain.getData() + skippedBytes,
                           static_cast<std::size_t>(grain.getUsed() - skippedBytes)))
            return false;
    }
    return true;
}

} // namespace

__int64 getExactSizeBytes(SafeDisk& disk) {
    std::optional<__int64> const exactSizeBytes = readRecord(disk);
    if (!exactSizeBytes)
        return disk.getSizeBytes();
    assert(*exactSizeBytes >= 0 && *exactSizeBytes <= disk.getSizeBytes());
    return isZeroBehind(disk, *exactSizeBytes) ? *exactSizeBytes : disk.getSizeBytes();
}

bool keepsExactSize(SafeDisk& disk) {
    return readRecord(disk).has_value();
}

void setExactSizeBytes(SafeDisk& disk, __int64 exactSizeBytes) {
    if (exactSizeBytes < 0 || exactSizeBytes > disk.getSizeBytes()) {
        throw yx::CInvalidArgError("setExactSizeBytes",
                                   "Invalid image size: " + yx::toString(exactSizeBytes) + " bytes",
                                   yx::CProps().add("diskSize", yx::toString(disk.getSizeBytes())));
    }
    // A child disk would store a grain that equals its parent's.
    if (!isZeroBehind(disk, exactSizeBytes))
        disk.writeZeros(exactSizeBytes, disk.getSizeBytes() - exactSizeBytes);
    // On the device before the descriptor says that nothing lies there.
    disk.flush();
    yx::P<CVMDKDescriptor> const descriptor = disk.getDisk().getDescriptor();
    DiskRecord(*descriptor).setImageBytes(exactSizeBytes);
    disk.storeDescriptor();
    assert(getExactSizeBytes(disk) == exactSizeBytes);
}

} // namespace kelm::host

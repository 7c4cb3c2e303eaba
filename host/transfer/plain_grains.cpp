#include "host/transfer/plain_grains.h"

#include <algorithm>
#include <cassert>

namespace kelm::host {

int bytesInDisk(SafeDisk const& disk, __int64 grainIndex) {
    assert(grainIndex >= 0 && grainIndex < disk.getGrainCount());
    return static_cast<int>(std::min(disk.getGrainSizeBytes(),
                                     disk.getSizeBytes() - grainIndex * disk.getGrainSizeBytes()));
}

__int64 countUnwrittenGrains(SafeDisk& disk, __int64 grainIndex, __int64 maxGrains) {
    assert(grainIndex >= 0 && grainIndex < disk.getGrainCount());
    __int64 const grainSizeBytes = disk.getGrainSizeBytes();
    __int64 const grains = std::min(maxGrains, kMaxCountedBytes / grainSizeBytes);
    if (grains < 1)
        return 0;
    // The end of an extent may lie within a grain.
    return disk.countUnwrittenBytes(grainIndex * grainSizeBytes, grains * grainSizeBytes) /
           grainSizeBytes;
}

__int64 countGrainsNotHere(SafeDisk& disk, __int64 grainIndex, __int64 maxGrains) {
    assert(grainIndex >= 0 && grainIndex < disk.getGrainCount());
    __int64 const grainSizeBytes = disk.getGrainSizeBytes();
    __int64 const grains = std::min(maxGrains, kMaxCountedBytes / grainSizeBytes);
    if (grains < 1)
        return 0;
    return disk.countBytesNotHere(grainIndex * grainSizeBytes, grains * grainSizeBytes) /
           grainSizeBytes;
}

bool isZeroGrain(yx::TBuffer<unsigned char> const& grain) {
    return yx::isAllZero(grain.getData(), static_cast<std::size_t>(grain.getUsed()));
}

void fillWithZeros(yx::TBuffer<unsigned char>& grain, int beginBytes, int endBytes) {
    assert(0 <= beginBytes && beginBytes <= endBytes && endBytes <= grain.getUsed());
    yx::initMemory(grain.getData() + beginBytes, 0,
                   static_cast<std::size_t>(endBytes - beginBytes));
}

void readPlainGrain(SafeDisk& disk, __int64 grainIndex, yx::TBuffer<unsigned char>& grain) {
    int const bytes = bytesInDisk(disk, grainIndex);
    grain.setUsed(bytes);
    disk.read(grainIndex * disk.getGrainSizeBytes(), grain.getData(), bytes);
}

void storePlainGrain(SafeDisk& disk, __int64 grainIndex, yx::TBuffer<unsigned char> const& grain) {
    assert(grain.getUsed() == disk.getGrainSizeBytes());
    if (isZeroGrain(grain))
        storeZeroGrain(disk, grainIndex);
    else if (disk.isWholeGrain(grainIndex) && !disk.getDisk().getCompressed())
        disk.writePreparedGrain(grainIndex, grain);
    else
        disk.write(grainIndex * disk.getGrainSizeBytes(), grain.getData(),
                   bytesInDisk(disk, grainIndex));
}

void storeZeroGrain(SafeDisk& disk, __int64 grainIndex) {
    disk.writeZeros(grainIndex * disk.getGrainSizeBytes(), bytesInDisk(disk, grainIndex));
}

} // namespace kelm::host

#include "host/transfer/chain_difference.h"

#include <algorithm>
#include <cassert>

#include "host/transfer/grain_place.h"
#include "host/transfer/plain_grains.h"
#include "host/transfer/transfer_progress.h"

namespace kelm::host {

bool passAllOn(std::vector<SafeDisk*> const& links, SafeDisk& base, __int64 positionBytes,
               __int64 bytes) {
    return std::all_of(links.begin(), links.end(), [&](SafeDisk* const link) {
        __int64 const endBytes = std::min(positionBytes + bytes, link->getSizeBytes());
        // Past the link's end there are zeros, whatever the base has there.
        bool const isCut = endBytes < positionBytes + bytes;
        if (isCut && base.getSizeBytes() > std::max(positionBytes, endBytes))
            return false;
        return endBytes <= positionBytes ||
               link->isPassedOn(positionBytes, endBytes - positionBytes);
    });
}

__int64 countBytesPassedOn(std::vector<SafeDisk*> const& links, __int64 positionBytes,
                           __int64 maxBytes) {
    __int64 bytes = maxBytes;
    for (SafeDisk* const link : links) {
        bytes = std::min(bytes, link->getSizeBytes() - positionBytes);
        if (bytes < 1)
            return 0;
        bytes = link->countBytesNotHere(positionBytes, bytes);
    }
    return bytes;
}

__int64 countUnwrittenInside(SafeDisk& disk, __int64 positionBytes, __int64 maxBytes) {
    __int64 const leftBytes = disk.getSizeBytes() - positionBytes;
    if (leftBytes <= 0 || maxBytes < 1)
        return maxBytes;
    __int64 const bytes = disk.countUnwrittenBytes(positionBytes, std::min(leftBytes, maxBytes));
    return bytes == leftBytes ? maxBytes : bytes;
}

GrainSet findGrainsOfLinks(SafeDisk& disk, std::vector<SafeDisk*> const& links, SafeDisk* base,
                           CancelFlag const* cancel) {
    __int64 const grainSizeBytes = disk.getGrainSizeBytes();
    return chooseGrains(
        disk, cancel,
        [&](__int64 grain) {
            return base ? !passAllOn(links, *base, grain * grainSizeBytes, bytesInDisk(disk, grain))
                        : disk.isGrainWritten(grain);
        },
        [&](__int64 grain, __int64 maxGrains) {
            if (!base)
                return countUnwrittenGrains(disk, grain, maxGrains);
            __int64 const grains = std::min(maxGrains, kMaxCountedBytes / grainSizeBytes);
            return countBytesPassedOn(links, grain * grainSizeBytes, grains * grainSizeBytes) /
                   grainSizeBytes;
        });
}

GrainSet findDifferences(SafeDisk& disk, SafeDisk& base, WorkOptions const& options) {
    TransferProgress progress(options, disk.getSizeBytes());
    std::vector<unsigned char> own;
    std::vector<unsigned char> other;
    __int64 const grainSizeBytes = disk.getGrainSizeBytes();
    GrainSet differences = chooseGrains(
        disk, nullptr,
        [&](__int64 grain) {
            __int64 const positionBytes = grain * grainSizeBytes;
            int const bytes = bytesInDisk(disk, grain);
            progress.advanceTo(positionBytes);
            if (!disk.isGrainWritten(grain) && !isWrittenInside(base, positionBytes, bytes))
                return false;
            own.resize(static_cast<std::size_t>(bytes));
            other.resize(static_cast<std::size_t>(bytes));
            readWithGrainPlace(disk, positionBytes, own.data(), bytes);
            readAsParent(base, positionBytes, other);
            return own != other;
        },
        [&](__int64 grain, __int64 maxGrains) {
            __int64 const grains = countUnwrittenGrains(disk, grain, maxGrains);
            return countUnwrittenInside(base, grain * grainSizeBytes, grains * grainSizeBytes) /
                   grainSizeBytes;
        });
    progress.finish(disk.getSizeBytes());
    return differences;
}

void readAsParent(SafeDisk& disk, __int64 positionBytes, std::vector<unsigned char>& buffer) {
    __int64 const leftBytes = std::max<__int64>(0, disk.getSizeBytes() - positionBytes);
    auto const count = std::min(leftBytes, static_cast<__int64>(buffer.size()));
    if (count > 0)
        readWithGrainPlace(disk, positionBytes, buffer.data(), static_cast<int>(count));
    std::fill(buffer.begin() + count, buffer.end(), static_cast<unsigned char>(0));
}

bool isWrittenInside(SafeDisk& disk, __int64 positionBytes, __int64 bytes) {
    __int64 const leftBytes = disk.getSizeBytes() - positionBytes;
    return leftBytes > 0 && disk.isWritten(positionBytes, std::min(bytes, leftBytes));
}

} // namespace kelm::host

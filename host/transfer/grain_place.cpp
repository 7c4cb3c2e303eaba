#include "host/transfer/grain_place.h"

#include <algorithm>
#include <cassert>

#include "host/disk/parent_chain.h"
#include "host/system/size_text.h"
#include "host/transfer/plain_grains.h"

namespace kelm::host {

namespace {

constexpr char kURIKey[] = "uri";

/// The file of the disk itself in which a grain begins.
yx::CURI fileOfGrain(SafeDisk& disk, __int64 grainIndex) {
    __int64 const positionBytes = grainIndex * disk.getGrainSizeBytes();
    for (DiskExtent const& extent : disk.listExtents()) {
        if (positionBytes < extent.endBytes)
            return extent.uri;
    }
    return disk.getDisk().getMainFileURI();
}

yx::CURI fileOfParentsGrain(SafeDisk& disk, __int64 grainIndex) {
    __int64 const positionBytes = grainIndex * disk.getGrainSizeBytes();
    try {
        // Without a password: which disk holds a grain stands in its tables, which are plain.
        for (auto const& parent : openParents(disk.getFileSystem(), disk, "")) {
            __int64 const parentsGrain = positionBytes / parent->getGrainSizeBytes();
            if (parentsGrain < parent->getGrainCount() && parent->isGrainWrittenHere(parentsGrain))
                return fileOfGrain(*parent, parentsGrain);
        }
    } catch (yx::CError const& error) {
        // The error that is to be reported matters more.
        error.nop();
    }
    return disk.getDisk().getParentDiskMainURI();
}

yx::CURI findFileOfGrain(SafeDisk& disk, __int64 grainIndex) {
    if (!disk.hasParent() || disk.isGrainWrittenHere(grainIndex))
        return fileOfGrain(disk, grainIndex);
    return fileOfParentsGrain(disk, grainIndex);
}

} // namespace

void addGrainPlace(yx::CError& error, SafeDisk& disk, __int64 grainIndex) {
    assert(grainIndex >= 0 && grainIndex < disk.getGrainCount());
    yx::CProps& props = error.getParams();
    if (!props.find(kURIKey)) {
        try {
            props.add(kURIKey, findFileOfGrain(disk, grainIndex).toString(true));
        } catch (yx::CError const& tableError) {
            // A table that cannot be read keeps the file's name from us, but not the grain's place.
            tableError.nop();
        }
    }
    __int64 const firstByte = grainIndex * disk.getGrainSizeBytes();
    __int64 const endByte = firstByte + bytesInDisk(disk, grainIndex);
    props.add("grain", yx::toString(grainIndex));
    props.add("bytes", yx::String::fromUTF8(formatRange(firstByte, endByte)));
}

std::function<void(yx::CIOError& error, __int64 grainIndex)> grainPlaceOf(SafeDisk& disk) {
    return [&disk](yx::CIOError& error, __int64 grainIndex) {
        addGrainPlace(error, disk, grainIndex);
    };
}

void withGrainPlace(SafeDisk& disk, __int64 grainIndex, std::function<void()> const& step) {
    try {
        step();
    } catch (yx::CIOError& error) {
        addGrainPlace(error, disk, grainIndex);
        throw;
    }
}

void readWithGrainPlace(SafeDisk& disk, __int64 positionBytes, void* buffer, int bytes) {
    try {
        disk.read(positionBytes, buffer, bytes);
        return;
    } catch (yx::CIOError const&) {
        bool const isInDisk = positionBytes >= 0 && positionBytes <= disk.getSizeBytes() - bytes;
        if (!isInDisk)
            throw;
    }
    // Grain by grain, to learn which one it is.
    auto* target = static_cast<unsigned char*>(buffer);
    while (bytes > 0) {
        __int64 const grainIndex = positionBytes / disk.getGrainSizeBytes();
        __int64 const grainEndBytes = (grainIndex + 1) * disk.getGrainSizeBytes();
        int const partBytes =
            static_cast<int>(std::min<__int64>(bytes, grainEndBytes - positionBytes));
        withGrainPlace(disk, grainIndex, [&] { disk.read(positionBytes, target, partBytes); });
        positionBytes += partBytes;
        target += partBytes;
        bytes -= partBytes;
    }
}

} // namespace kelm::host

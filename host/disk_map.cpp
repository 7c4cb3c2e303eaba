#include "host/disk_map.h"

#include <algorithm>

namespace kelm::host {

namespace {

GrainPlace findPlace(SafeDisk& disk, __int64 grainIndex) {
    if (disk.isGrainWrittenHere(grainIndex))
        return GrainPlace::Here;
    if (disk.hasParent() && disk.isGrainWritten(grainIndex))
        return GrainPlace::Parent;
    return GrainPlace::Absent;
}

} // namespace

std::vector<GrainRun> mapDisk(SafeDisk& disk, TransferOptions const& options) {
    ProgressThrottle throttle(options.progress);
    std::vector<GrainRun> runs;
    __int64 const grainSizeBytes = disk.getGrainSizeBytes();
    for (__int64 index = 0; index < disk.getGrainCount(); ++index) {
        if (options.cancel)
            options.cancel->check();
        __int64 const startBytes = index * grainSizeBytes;
        throttle.report(startBytes, disk.getSizeBytes());
        GrainPlace const place = findPlace(disk, index);
        if (runs.empty() || runs.back().place != place)
            runs.push_back({startBytes, 0, place});
        runs.back().lengthBytes += std::min(grainSizeBytes, disk.getSizeBytes() - startBytes);
    }
    return runs;
}

} // namespace kelm::host

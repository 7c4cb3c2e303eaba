#include "host/transfer/disk_flattening.h"

#include "host/transfer/held_grains.h"
#include "host/transfer/parents_room.h"
#include "host/transfer/plain_grains.h"
#include "host/transfer/whole_reading.h"

namespace kelm::host {

GrainSet findParentsGrains(SafeDisk& disk, CancelFlag const* cancel) {
    return chooseGrains(
        disk, cancel,
        [&](__int64 grain) {
            return !disk.isGrainWrittenHere(grain) && disk.isGrainWritten(grain);
        },
        [&](__int64 grain, __int64 maxGrains) {
            return countUnwrittenGrains(disk, grain, maxGrains);
        });
}

void makeIndependentOfParent(SafeDisk& disk, WorkOptions const& options) {
    GrainSet grains(disk.getGrainCount());
    if (disk.hasParent()) {
        beginWholeReading(disk, options.cancel);
        grains = findParentsGrains(disk, options.cancel);
        ParentsRoom room;
        room.add(disk, grains, options.cancel);
        room.verify();
    }
    holdGrains(disk, grains, options);
}

} // namespace kelm::host

#include "host/transfer/parent_independence.h"

#include <cassert>

#include "host/transfer/grain_pipeline.h"
#include "host/transfer/grain_place.h"
#include "host/transfer/record_verifier.h"
#include "host/transfer/transfer_progress.h"
#include "host/transfer/whole_reading.h"

namespace kelm::host {

namespace {

/// Finds the next grain from `grainIndex` on that only a parent holds; the grain count if there is
/// none.
__int64 findParentsGrain(SafeDisk& disk, __int64 grainIndex, TransferProgress& progress) {
    assert(grainIndex >= 0 && grainIndex <= disk.getGrainCount());
    while (grainIndex < disk.getGrainCount() &&
           (disk.isGrainWrittenHere(grainIndex) || !disk.isGrainWritten(grainIndex))) {
        progress.advanceTo(grainIndex * disk.getGrainSizeBytes());
        ++grainIndex;
    }
    return grainIndex;
}

void copyParentsGrain(SafeDisk& disk, __int64 grainIndex, TransferProgress& progress) {
    withGrainPlace(disk, grainIndex, [&] { disk.makeGrainIndependentOfParent(grainIndex); });
    progress.advanceTo(grainIndex * disk.getGrainSizeBytes());
}

/// On one thread: there are no records to decode.
void copyDirectly(SafeDisk& disk, TransferProgress& progress) {
    for (__int64 index = findParentsGrain(disk, 0, progress); index < disk.getGrainCount();
         index = findParentsGrain(disk, index + 1, progress)) {
        copyParentsGrain(disk, index, progress);
    }
}

/// The workers verify the records. A grain that is not stored as a record is decoded when it is copied.
void copyVerified(SafeDisk& disk, int threads, TransferProgress& progress) {
    RecordVerifier verifier(disk, threads);
    GrainPipeline pipeline(threads, disk.getGrainSizeBytes(), [&](GrainItem& item, int worker) {
        if (item.inputIsPrepared)
            verifier.verify(item, worker);
    });
    __int64 nextIndex = 0;
    pipeline.run(
        [&](GrainItem& item) {
            nextIndex = findParentsGrain(disk, nextIndex, progress);
            if (nextIndex >= disk.getGrainCount())
                return false;
            item.grainIndex = nextIndex++;
            withGrainPlace(disk, item.grainIndex, [&] {
                item.inputIsPrepared = disk.tryReadPreparedGrain(item.grainIndex, *item.input);
            });
            return true;
        },
        [&](GrainItem& item) { copyParentsGrain(disk, item.grainIndex, progress); },
        grainPlaceOf(disk));
}

} // namespace

void makeIndependentOfParent(SafeDisk& disk, WorkOptions const& options) {
    if (disk.hasParent())
        beginWholeReading(disk, options.cancel);
    TransferProgress progress(options, disk.getSizeBytes());
    if (disk.hasParent() && disk.getDisk().getCompressed())
        copyVerified(disk, countThreads(options), progress);
    else if (disk.hasParent())
        copyDirectly(disk, progress);
    disk.flush();
    progress.finish(disk.getSizeBytes());
}

} // namespace kelm::host

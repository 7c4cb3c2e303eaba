#include "host/transfer/disk_flattening.h"

#include <cassert>

#include "host/transfer/grain_pipeline.h"
#include "host/transfer/grain_place.h"
#include "host/transfer/parents_room.h"
#include "host/transfer/record_verifier.h"
#include "host/transfer/transfer_progress.h"
#include "host/transfer/whole_reading.h"

namespace kelm::host {

namespace {

constexpr __int64 kFlushIntervalBytes = __int64{64} << 20;

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

/// Copies grains, and flushes now and then: until its tables are on the device, a grain that was
/// copied is dead space for the next one who opens the disk.
class GrainCopier {
public:
    GrainCopier(SafeDisk& disk, TransferProgress& progress) : m_disk(disk), m_progress(progress) {}

    void copy(__int64 grainIndex) {
        withGrainPlace(m_disk, grainIndex,
                       [&] { m_disk.makeGrainIndependentOfParent(grainIndex); });
        m_unflushedBytes += m_disk.getGrainSizeBytes();
        if (m_unflushedBytes >= kFlushIntervalBytes) {
            m_disk.flush();
            m_unflushedBytes = 0;
        }
        m_progress.advanceTo(grainIndex * m_disk.getGrainSizeBytes());
    }

private:
    SafeDisk& m_disk;
    TransferProgress& m_progress;
    __int64 m_unflushedBytes = 0;
};

/// On one thread: there are no records to decode.
void copyDirectly(SafeDisk& disk, TransferProgress& progress) {
    GrainCopier copier(disk, progress);
    for (__int64 index = findParentsGrain(disk, 0, progress); index < disk.getGrainCount();
         index = findParentsGrain(disk, index + 1, progress)) {
        copier.copy(index);
    }
}

/// The workers verify the records. A grain that is not stored as a record is decoded when it is
/// copied.
void copyVerified(SafeDisk& disk, int threads, TransferProgress& progress) {
    RecordVerifier verifier(disk, threads);
    GrainPipeline pipeline(threads, disk.getGrainSizeBytes(), [&](GrainItem& item, int worker) {
        if (item.inputIsPrepared)
            verifier.verify(item, worker);
    });
    GrainCopier copier(disk, progress);
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
        [&](GrainItem& item) { copier.copy(item.grainIndex); }, grainPlaceOf(disk));
}

} // namespace

void makeIndependentOfParent(SafeDisk& disk, WorkOptions const& options) {
    if (disk.hasParent()) {
        beginWholeReading(disk, options.cancel);
        verifyRoomForParentsGrains(disk, options.cancel);
    }
    TransferProgress progress(options, disk.getSizeBytes());
    if (disk.hasParent() && disk.getDisk().getCompressed())
        copyVerified(disk, countThreads(options), progress);
    else if (disk.hasParent())
        copyDirectly(disk, progress);
    disk.flush();
    progress.finish(disk.getSizeBytes());
}

} // namespace kelm::host

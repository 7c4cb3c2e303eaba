#include "host/transfer/held_grains.h"

#include "host/transfer/grain_pipeline.h"
#include "host/transfer/grain_place.h"
#include "host/transfer/periodic_flush.h"
#include "host/transfer/plain_grains.h"
#include "host/transfer/record_verifier.h"
#include "host/transfer/transfer_progress.h"

namespace kelm::host {

namespace {

constexpr __int64 kFlushIntervalBytes = __int64{64} << 20;

class GrainCopier {
public:
    GrainCopier(SafeDisk& disk, TransferProgress& progress)
        : m_disk(disk), m_progress(progress), m_flush(disk, kFlushIntervalBytes) {}

    /// Reads the grain, and stores it.
    void copy(__int64 grainIndex) {
        withGrainPlace(m_disk, grainIndex, [&] { m_disk.holdGrain(grainIndex); });
        addCopied(grainIndex);
    }

    /// Stores a grain that has been read in prepared form.
    void copyPrepared(__int64 grainIndex, yx::TBuffer<unsigned char>& prepared) {
        withGrainPlace(m_disk, grainIndex, [&] { m_disk.holdPreparedGrain(grainIndex, prepared); });
        addCopied(grainIndex);
    }

private:
    void addCopied(__int64 grainIndex) {
        m_flush.addGrain();
        __int64 const bytes = bytesInDisk(m_disk, grainIndex);
        m_progress.addStored(bytes);
        m_progress.addRead(bytes);
        m_progress.advanceTo(grainIndex * m_disk.getGrainSizeBytes());
    }

    SafeDisk& m_disk;
    TransferProgress& m_progress;
    PeriodicFlush m_flush;
};

/// On one thread: there are no records to decode.
void copyDirectly(SafeDisk& disk, GrainSet const& grains, TransferProgress& progress) {
    GrainCopier copier(disk, progress);
    for (__int64 index = grains.findNext(0); index < grains.getGrainCount();
         index = grains.findNext(index + 1)) {
        copier.copy(index);
    }
}

/// The workers verify the records. A grain that is not stored as a record is decoded when it is
/// copied.
void copyVerified(SafeDisk& disk, GrainSet const& grains, int threads, TransferProgress& progress) {
    RecordVerifier verifier(disk, threads);
    GrainPipeline pipeline(threads, disk.getGrainSizeBytes(), [&](GrainItem& item, int worker) {
        if (item.inputIsPrepared)
            verifier.verify(item, worker);
    });
    GrainCopier copier(disk, progress);
    __int64 nextIndex = 0;
    pipeline.run(
        [&](GrainItem& item) {
            nextIndex = grains.findNext(nextIndex);
            if (nextIndex >= grains.getGrainCount())
                return false;
            item.grainIndex = nextIndex++;
            withGrainPlace(disk, item.grainIndex, [&] {
                item.inputIsPrepared = disk.tryReadPreparedGrain(item.grainIndex, *item.input);
            });
            return true;
        },
        [&](GrainItem& item) {
            if (item.inputIsPrepared)
                copier.copyPrepared(item.grainIndex, *item.input);
            else
                copier.copy(item.grainIndex);
        },
        grainPlaceOf(disk));
}

} // namespace

void holdGrains(SafeDisk& disk, GrainSet const& grains, WorkOptions const& options) {
    TransferProgress progress(options, disk.getSizeBytes());
    if (disk.getDisk().getCompressed())
        copyVerified(disk, grains, countThreads(options), progress);
    else
        copyDirectly(disk, grains, progress);
    disk.flush();
    progress.finish(disk.getSizeBytes());
}

} // namespace kelm::host

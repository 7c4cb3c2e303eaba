#include "host/transfer/held_grains.h"

#include <optional>

#include "host/transfer/grain_pipeline.h"
#include "host/transfer/grain_place.h"
#include "host/transfer/periodic_flush.h"
#include "host/transfer/plain_grains.h"
#include "host/transfer/record_verifier.h"
#include "host/transfer/result_cipher.h"
#include "host/transfer/transfer_progress.h"
#include "host/transfer/unpreparer.h"

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

    /// Stores the result of a worker, which is enciphered for the disk.
    void copyEnciphered(__int64 grainIndex, yx::TBuffer<unsigned char> const& enciphered) {
        withGrainPlace(m_disk, grainIndex,
                       [&] { m_disk.holdEncipheredGrain(grainIndex, enciphered); });
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

/// On one thread: there are no records to decode, and there is nothing to encipher.
void copyDirectly(SafeDisk& disk, GrainSet const& grains, TransferProgress& progress) {
    GrainCopier copier(disk, progress);
    for (__int64 index = grains.findNext(0); index < grains.getGrainCount();
         index = grains.findNext(index + 1)) {
        copier.copy(index);
    }
}

/// The workers' part of the copying.
class GrainCoding {
public:
    GrainCoding(SafeDisk& disk, int threads)
        : m_disk(disk), m_read(disk, threads), m_cipher(disk, threads) {
        if (!disk.getDisk().getCompressed())
            return;
        m_verifier.emplace(disk, threads);
        m_preparers.emplace(disk, threads);
    }

    /// On the thread of the disk. A grain that has no prepared form is not read.
    void read(GrainItem& item) {
        withGrainPlace(m_disk, item.grainIndex, [&] {
            item.inputCiphers = m_read.tryRead(item.grainIndex, *item.input);
            item.inputIsPrepared =
                item.inputCiphers || m_disk.tryReadPreparedGrain(item.grainIndex, *item.input);
        });
    }

    /// On a worker thread: verifies a record, and enciphers what goes to an encrypted disk.
    void code(GrainItem& item, int worker) {
        if (!item.inputIsPrepared)
            return;
        Unpreparer::decipher(item, worker);
        if (m_verifier)
            m_verifier->verify(item, worker);
        if (m_preparers)
            m_preparers->of(worker).patchGrainIndexInPreparedGrainData(*item.input,
                                                                       item.grainIndex);
        item.result = item.input;
        m_cipher.encipher(item, worker);
    }

private:
    SafeDisk& m_disk;
    GrainCiphers m_read;
    ResultCipher m_cipher;

    /// For compressed disks alone.
    std::optional<RecordVerifier> m_verifier;
    std::optional<PreparerSet> m_preparers;
};

/// The workers verify records, decipher and encipher. A grain that has no prepared form is read
/// when it is copied.
void copyCoded(SafeDisk& disk, GrainSet const& grains, int threads, TransferProgress& progress) {
    GrainCoding coding(disk, threads);
    GrainPipeline pipeline(threads, disk.getGrainSizeBytes(),
                           [&](GrainItem& item, int worker) { coding.code(item, worker); });
    GrainCopier copier(disk, progress);
    __int64 nextIndex = 0;
    pipeline.run(
        [&](GrainItem& item) {
            nextIndex = grains.findNext(nextIndex);
            if (nextIndex >= grains.getGrainCount())
                return false;
            item.grainIndex = nextIndex++;
            coding.read(item);
            return true;
        },
        [&](GrainItem& item) {
            if (item.resultIsEnciphered)
                copier.copyEnciphered(item.grainIndex, *item.result);
            else if (item.result)
                copier.copyPrepared(item.grainIndex, *item.result);
            else
                copier.copy(item.grainIndex);
        },
        grainPlaceOf(disk));
}

} // namespace

void holdGrains(SafeDisk& disk, GrainSet const& grains, WorkOptions const& options) {
    disk.limitTables(kMaxTablesOfOnePass);
    TransferProgress progress(options, disk.getSizeBytes());
    if (disk.getDisk().getCompressed() || disk.getDisk().isEncrypted())
        copyCoded(disk, grains, countThreads(options), progress);
    else
        copyDirectly(disk, grains, progress);
    disk.flush();
    progress.finish(disk.getSizeBytes());
}

} // namespace kelm::host

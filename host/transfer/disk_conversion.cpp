#include "host/transfer/disk_conversion.h"

#include <cassert>
#include <optional>

#include "host/transfer/grain_pipeline.h"
#include "host/transfer/grain_place.h"
#include "host/transfer/plain_grains.h"
#include "host/transfer/unpreparer.h"
#include "host/transfer/whole_reading.h"
#include "host/transfer/written_grain_reader.h"
#include "yx/error.h"

namespace kelm::host {

namespace {

/// Between disks whose grains have one size.
void convertGrains(SafeDisk& from, SafeDisk& to, RecordCheck check, int threads,
                   TransferProgress& progress) {
    assert(from.getGrainSizeBytes() == to.getGrainSizeBytes());
    bool const bothAreCompressed = from.getDisk().getCompressed() && to.getDisk().getCompressed();
    std::optional<RecordVerifier> verifier;
    if (bothAreCompressed && check == RecordCheck::Decode)
        verifier.emplace(from, threads);
    Unpreparer unpreparer(from, threads);
    PreparerSet preparers(to, threads);
    GrainPipeline pipeline(threads, from.getGrainSizeBytes(), [&](GrainItem& item, int worker) {
        if (item.inputIsPrepared && bothAreCompressed && !item.resultIsPlain) {
            if (verifier)
                verifier->verify(item, worker);
            // Readers ignore the index in a record, so one that was not verified may be wrong.
            preparers.of(worker).patchGrainIndexInPreparedGrainData(*item.input, item.grainIndex);
            item.result = item.input;
            return;
        }
        yx::P<GrainItem::Buffer> const plain = unpreparer.getPlain(item, worker);
        if (!isZeroGrain(*plain))
            item.result = item.resultIsPlain ? plain
                                             : preparers.of(worker).prepareGrainData(
                                                   plain.get(), item.grainIndex, item.aux2.get());
    });
    WrittenGrainReader reader(from, progress);
    pipeline.run(
        [&](GrainItem& item) {
            if (!reader.readNext(*item.input, item.grainIndex, item.inputIsPrepared))
                return false;
            // A larger disk has room for the whole of the other one's last grain.
            item.resultIsPlain = !to.isWholeGrain(item.grainIndex);
            return true;
        },
        [&](GrainItem& item) {
            assert(item.grainIndex < to.getGrainCount());
            if (item.result && item.resultIsPlain)
                to.write(item.grainIndex * to.getGrainSizeBytes(), item.result->getData(),
                         item.result->getUsed());
            else if (item.result)
                to.writePreparedGrain(item.grainIndex, *item.result);
            progress.advanceTo(item.grainIndex * from.getGrainSizeBytes());
        },
        grainPlaceOf(from));
}

/// Between disks of different grain sizes, by plain bytes.
void convertBytes(SafeDisk& from, SafeDisk& to, TransferProgress& progress) {
    WrittenGrainReader reader(from, progress);
    yx::TBuffer<unsigned char> grain;
    __int64 grainIndex = 0;
    while (reader.readNextPlain(grain, grainIndex)) {
        __int64 const positionBytes = grainIndex * from.getGrainSizeBytes();
        assert(positionBytes + grain.getUsed() <= to.getSizeBytes());
        if (!isZeroGrain(grain))
            to.write(positionBytes, grain.getData(), grain.getUsed());
        progress.advanceTo(positionBytes);
    }
}

} // namespace

void convertDisk(SafeDisk& from, SafeDisk& to, WorkOptions const& options, RecordCheck check) {
    if (to.getSizeBytes() < from.getSizeBytes()) {
        throw yx::CIOError(yx::CIOError::NotAllowed, "The target disk is too small.",
                           yx::CProps()
                               .add("sourceSize", yx::toString(from.getSizeBytes()))
                               .add("targetSize", yx::toString(to.getSizeBytes())),
                           nullptr);
    }
    beginWholeReading(from, options.cancel);
    TransferProgress progress(options, from.getSizeBytes());
    if (from.getGrainSizeBytes() == to.getGrainSizeBytes())
        convertGrains(from, to, check, countThreads(options), progress);
    else
        convertBytes(from, to, progress);
    to.flush();
    progress.finish(from.getSizeBytes());
}

} // namespace kelm::host

#include "host/transfer/raw_export.h"

#include <cassert>

#include "host/transfer/exact_size.h"
#include "host/transfer/grain_pipeline.h"
#include "host/transfer/grain_place.h"
#include "host/transfer/image_writer.h"
#include "host/transfer/plain_grains.h"
#include "host/transfer/unpreparer.h"
#include "host/transfer/whole_reading.h"
#include "host/transfer/written_grain_reader.h"

namespace kelm::host {

namespace {

void exportPlain(SafeDisk& disk, ImageWriter& writer, TransferProgress& progress) {
    WrittenGrainReader reader(disk, progress, writer.getImageBytes());
    yx::TBuffer<unsigned char> grain;
    __int64 grainIndex = 0;
    bool isPrepared = false;
    while (reader.readNext(grain, grainIndex, isPrepared)) {
        bool const isZero = isZeroGrain(grain);
        writer.write(grainIndex, isZero ? nullptr : &grain);
        if (!isZero)
            progress.addStored(grain.getUsed());
        progress.advanceTo(grainIndex * disk.getGrainSizeBytes());
    }
}

/// With the decoding and deciphering on several threads.
void exportCoded(SafeDisk& disk, ImageWriter& writer, int threads, TransferProgress& progress) {
    assert(threads > 0);
    Unpreparer unpreparer(disk, threads);
    GrainPipeline pipeline(threads, disk.getGrainSizeBytes(), [&](GrainItem& item, int worker) {
        yx::P<GrainItem::Buffer> const plain = unpreparer.getPlain(item, worker);
        if (isZeroGrain(*plain))
            return;
        // Writing takes about as long as decoding, so the workers do that too.
        writer.writeEarly(item.grainIndex, *plain);
        item.result = plain;
    });
    WrittenGrainReader reader(disk, progress, writer.getImageBytes());
    pipeline.run(
        [&](GrainItem& item) {
            if (!reader.findNext(item.grainIndex))
                return false;
            unpreparer.read(item);
            progress.addRead(item.input->getUsed());
            writer.beginEarly();
            return true;
        },
        [&](GrainItem& item) {
            writer.writeLate(item.grainIndex, item.result.get());
            if (item.result)
                progress.addStored(item.result->getUsed());
            progress.advanceTo(item.grainIndex * disk.getGrainSizeBytes());
        },
        grainPlaceOf(disk));
}

} // namespace

void exportRaw(SafeDisk& disk, RawTarget& target, WorkOptions const& options) {
    beginWholeReading(disk, options.cancel);
    __int64 const imageBytes = getExactSizeBytes(disk);
    TransferProgress progress(options, imageBytes);
    ImageWriter writer(disk, target, imageBytes);
    target.verifyHasRoomFor(imageBytes);
    if (disk.getDisk().getCompressed() || disk.getDisk().isEncrypted())
        exportCoded(disk, writer, countThreads(options), progress);
    else
        exportPlain(disk, writer, progress);
    writer.finish();
    progress.finish(imageBytes);
}

} // namespace kelm::host

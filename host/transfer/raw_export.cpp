#include "host/transfer/raw_export.h"

#include "host/transfer/coded_export.h"
#include "host/transfer/exact_size.h"
#include "host/transfer/image_writer.h"
#include "host/transfer/plain_grains.h"
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

} // namespace

void exportRaw(SafeDisk& disk, RawTarget& target, WorkOptions const& options) {
    beginWholeReading(disk, options.cancel);
    __int64 const imageBytes = getExactSizeBytes(disk);
    TransferProgress progress(options, imageBytes);
    ImageWriter writer(disk, target, imageBytes);
    target.verifyHasRoomFor(imageBytes);
    if (disk.getDisk().getCompressed() || disk.getDisk().isEncrypted())
        CodedExport(disk, writer, countThreads(options), progress).run();
    else
        exportPlain(disk, writer, progress);
    writer.finish();
    progress.finish(imageBytes);
}

} // namespace kelm::host

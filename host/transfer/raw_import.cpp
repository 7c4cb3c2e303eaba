#include "host/transfer/raw_import.h"

#include <cassert>
#include <cstring>

#include "host/transfer/grain_pipeline.h"
#include "host/transfer/grain_place.h"
#include "host/transfer/image_reader.h"
#include "host/transfer/plain_grains.h"
#include "host/transfer/preparer_set.h"
#include "host/transfer/transfer_progress.h"
#include "host/transfer/whole_reading.h"

namespace kelm::host {

namespace {

using Buffer = yx::TBuffer<unsigned char>;

/// Whether the disk reads as `grain` there already.
bool holdsEqualGrain(SafeDisk& disk, __int64 grainIndex, Buffer const& grain, Buffer& scratch) {
    withGrainPlace(disk, grainIndex, [&] { readPlainGrain(disk, grainIndex, scratch); });
    assert(scratch.getUsed() <= grain.getUsed());
    return std::memcmp(scratch.getData(), grain.getData(),
                       static_cast<std::size_t>(scratch.getUsed())) == 0;
}

/// On one thread: for a disk of plain grains there is nothing to compute, and what is to be
/// compared with the image only the thread of the disk may read.
void importDirectly(ImageReader& reader, SafeDisk& disk, bool isCompared,
                    TransferProgress& progress) {
    Buffer grain;
    Buffer scratch;
    __int64 grainIndex = 0;
    while (reader.readNext(grain, grainIndex)) {
        bool const isInHole = grain.getUsed() == 0;
        if (isInHole)
            storeZeroGrain(disk, grainIndex);
        else if (!isCompared || !holdsEqualGrain(disk, grainIndex, grain, scratch))
            storePlainGrain(disk, grainIndex, grain);
        progress.advanceTo(reader.getDoneBytes());
    }
}

void importCompressed(ImageReader& reader, SafeDisk& disk, int threads,
                      TransferProgress& progress) {
    assert(!disk.hasParent());
    PreparerSet preparers(disk, threads);
    GrainPipeline pipeline(threads, disk.getGrainSizeBytes(), [&](GrainItem& item, int worker) {
        bool const isInHole = item.input->getUsed() == 0;
        if (!isInHole && !isZeroGrain(*item.input))
            item.result = preparers.of(worker).prepareGrainData(item.input.get(), item.grainIndex,
                                                                item.aux1.get());
    });
    pipeline.run([&](GrainItem& item) { return reader.readNext(*item.input, item.grainIndex); },
                 [&](GrainItem& item) {
                     if (!item.result)
                         storeZeroGrain(disk, item.grainIndex);
                     else if (disk.isWholeGrain(item.grainIndex))
                         disk.writePreparedGrain(item.grainIndex, *item.result);
                     else
                         storePlainGrain(disk, item.grainIndex, *item.input);
                     progress.advanceTo(item.grainIndex * disk.getGrainSizeBytes());
                 });
}

} // namespace

void importRaw(RawSource& source, SafeDisk& disk, WorkOptions const& options,
               ImageLength const& length, PresentContent present) {
    bool const isCompared = disk.hasParent() || present == PresentContent::Any;
    if (disk.hasParent())
        beginWholeReading(disk, options.cancel);
    TransferProgress progress(options, source.getLength());
    ImageReader reader(source, disk, length);
    if (disk.getDisk().getCompressed() && !isCompared)
        importCompressed(reader, disk, countThreads(options), progress);
    else
        importDirectly(reader, disk, isCompared, progress);
    assert(reader.getDoneBytes() == source.getPosition());
    disk.flush();
    progress.finish(source.getPosition());
}

} // namespace kelm::host

#include "host/transfer/salvage.h"

#include <algorithm>
#include <cassert>
#include <functional>

#include "host/disk/disk_record.h"
#include "host/transfer/plain_grains.h"
#include "host/transfer/transfer_progress.h"
#include "yx/memory.h"

namespace kelm::host {

namespace {

/// A grain of nearly every disk.
constexpr int kSalvagedChunkBytes = kNewDiskGrainSizeSectors * kSectorSizeBytes;

/// Receives a stretch of the disk; null for zeros.
using UseChunk =
    std::function<void(__int64 positionBytes, unsigned char const* data, __int64 bytes)>;

/// How many bytes of whole chunks no file holds, as far as that is known without reading.
__int64 countAbsentChunks(SalvagedDisk& disk, __int64 positionBytes, __int64 endBytes) {
    __int64 const maxBytes = std::min(endBytes - positionBytes, kMaxCountedBytes);
    if (maxBytes <= 0)
        return 0;
    return disk.countAbsentBytes(positionBytes, maxBytes) / kSalvagedChunkBytes *
           kSalvagedChunkBytes;
}

void forEachChunk(SalvagedDisk& disk, __int64 startBytes, __int64 endBytes,
                  TransferProgress& progress, UseChunk const& use) {
    yx::TBuffer<unsigned char> chunk(kSalvagedChunkBytes, -1);
    for (__int64 position = startBytes; position < endBytes;) {
        int const bytes =
            static_cast<int>(std::min<__int64>(kSalvagedChunkBytes, endBytes - position));
        bool const isStored = disk.read(position, chunk.getData(), bytes);
        bool const isZero =
            !isStored || yx::isAllZero(chunk.getData(), static_cast<std::size_t>(bytes));
        if (isStored)
            progress.addRead(bytes);
        if (!isZero)
            progress.addStored(bytes);
        use(position, isZero ? nullptr : chunk.getData(), bytes);
        progress.advanceTo(position);
        position += bytes;
        __int64 const absentBytes = isStored ? 0 : countAbsentChunks(disk, position, endBytes);
        if (absentBytes > 0)
            use(position, nullptr, absentBytes);
        position += absentBytes;
    }
}

/// What the descriptor says, as far as that makes sense; otherwise the size of the disk.
__int64 readImageBytes(SalvagedDisk& disk) {
    __int64 const sizeBytes = disk.getSizeBytes();
    try {
        yx::P<CVMDKDescriptor> const descriptor = disk.getDescriptor();
        return DiskRecord(*descriptor).getImageBytes(sizeBytes).value_or(sizeBytes);
    } catch (yx::CError const& error) {
        error.nop();
        return sizeBytes;
    }
}

} // namespace

__int64 getSalvagedSizeBytes(SalvagedDisk& disk, CancelFlag const* cancel) {
    __int64 const sizeBytes = disk.getSizeBytes();
    __int64 const imageBytes = readImageBytes(disk);
    WorkOptions work;
    work.cancel = cancel;
    TransferProgress progress(work, sizeBytes);
    bool isLonger = false;
    forEachChunk(disk, imageBytes, sizeBytes, progress,
                 [&](__int64, unsigned char const* data, __int64) { isLonger = isLonger || data; });
    disk.forgetDamage();
    return isLonger ? sizeBytes : imageBytes;
}

void exportSalvaged(SalvagedDisk& disk, RawTarget& target, __int64 imageBytes,
                    WorkOptions const& options) {
    assert(imageBytes >= 0 && imageBytes <= disk.getSizeBytes());
    target.verifyHasRoomFor(imageBytes);
    TransferProgress progress(options, imageBytes);
    forEachChunk(disk, 0, imageBytes, progress,
                 [&](__int64, unsigned char const* data, __int64 bytes) {
                     if (data)
                         target.write(data, static_cast<int>(bytes));
                     else
                         target.writeZeros(bytes);
                 });
    target.finish();
    progress.finish(imageBytes);
}

void convertSalvaged(SalvagedDisk& disk, SafeDisk& to, __int64 imageBytes,
                     WorkOptions const& options) {
    assert(imageBytes >= 0 && imageBytes <= disk.getSizeBytes());
    assert(imageBytes <= to.getSizeBytes());
    to.limitTables(kMaxTablesOfOnePass);
    TransferProgress progress(options, imageBytes);
    forEachChunk(disk, 0, imageBytes, progress,
                 [&](__int64 position, unsigned char const* data, __int64 bytes) {
                     if (data)
                         to.write(position, data, static_cast<int>(bytes));
                 });
    to.flush();
    progress.finish(imageBytes);
}

} // namespace kelm::host

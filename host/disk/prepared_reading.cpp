#include "host/disk/prepared_reading.h"

#include <cassert>

namespace kelm::host {

namespace {

/// A record from an encrypted disk ends with its data. Stored like that, in another encrypted disk,
/// it would be enciphered without the padding that belongs to a record.
void padToSector(yx::TBuffer<unsigned char>& data) {
    int const surplusBytes = data.getUsed() % kSectorSizeBytes;
    if (surplusBytes == 0)
        return;
    int const sizeBytes = data.getUsed();
    int const paddingBytes = kSectorSizeBytes - surplusBytes;
    data.setUsed(sizeBytes + paddingBytes);
    yx::initMemory(data.getData() + sizeBytes, 0, static_cast<std::size_t>(paddingBytes));
    assert(data.getUsed() % kSectorSizeBytes == 0);
}

} // namespace

PreparedReading::PreparedReading(DiskLayout const& layout, ChainGrains& grains,
                                 DiskReading& reading)
    : m_layout(layout), m_grains(grains), m_reading(reading) {}

bool PreparedReading::tryRead(__int64 grainIndex, yx::TBuffer<unsigned char>& data) {
    bool const isRead = m_reading.useDisk(grainIndex, [&](CVMDKDisk& disk) {
        std::optional<ChainGrains::Holder> const found = m_grains.findPrepared(disk, grainIndex);
        if (!found)
            return false;
        CVMDKDisk& holder = found->disk ? *found->disk : disk;
        holder.seek(grainIndex * m_layout.getGrainSizeBytes());
        holder.readPreparedGrainData(data);
        return true;
    });
    if (isRead)
        padToSector(data);
    return isRead;
}

int PreparedReading::tryReadEnciphered(__int64 grainIndex, yx::TBuffer<unsigned char>& data) {
    return m_reading.useDisk(grainIndex, [&](CVMDKDisk& disk) {
        ChainGrains::Holder const holder = m_grains.findHolder(disk, grainIndex);
        if (!holder.disk)
            return -1;
        holder.disk->seek(grainIndex * m_layout.getGrainSizeBytes());
        return holder.disk->tryReadEncipheredGrainData(data) ? holder.level : -1;
    });
}

} // namespace kelm::host

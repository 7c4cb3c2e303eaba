#include <algorithm>

#include "host/disk/safe_disk.h"
#include "kelm/format/constants.h"
#include "yx/mt_rand.h"

namespace kelm::host {

namespace {

/// A value that is written with as many digits as `contentID`, and is neither that nor one of the
/// two that mean no disk.
unsigned int drawContentIDLike(unsigned int contentID) {
    std::size_t const digits = yx::toHexString(contentID).toStdString().size();
    for (;;) {
        yx::CMutexLock const lock(yx::CMTRand::getGlobalInstanceMutex().get());
        unsigned int const drawn = yx::CMTRand::getGlobal()->rand32() >> (32 - 4 * digits);
        if (drawn != 0 && drawn != kNoParentContentID && drawn != contentID &&
            yx::toHexString(drawn).toStdString().size() == digits)
            return drawn;
    }
}

} // namespace

void SafeDisk::changeContentID() {
    if (m_hasNewContentID)
        return;
    yx::P<CVMDKDescriptor> const descriptor = m_disk->getDescriptor();
    unsigned int const oldContentID = descriptor->getContentID();
    descriptor->setContentID(drawContentIDLike(oldContentID));
    try {
        m_disk->storeDescriptor();
    } catch (...) {
        descriptor->setContentID(oldContentID);
        throw;
    }
    m_hasNewContentID = true;
}

void SafeDisk::reserveRoom(__int64 positionBytes, __int64 bytes) {
    dropTablesIfMany();
    __int64 const endBytes = positionBytes + bytes;
    auto extent = std::upper_bound(
        m_extents.begin(), m_extents.end(), positionBytes,
        [](__int64 position, Extent const& candidate) { return position < candidate.endBytes; });
    for (; extent != m_extents.end() && positionBytes < endBytes; ++extent) {
        __int64 const partEndBytes = std::min(endBytes, extent->endBytes);
        __int64 const grains = (partEndBytes - positionBytes) / getGrainSizeBytes() + 2;
        reserveRoomInExtent(*extent, grains * m_worstCaseGrainBytes);
        positionBytes = partEndBytes;
    }
}

void SafeDisk::reserveRoomInExtent(Extent& extent, __int64 growthBytes) {
    __int64 const limitBytes = kMaxExtentFileBytes - __int64{kTrailSectors} * kSectorSizeBytes;
    if (extent.lengthBoundBytes >= 0 && extent.lengthBoundBytes + growthBytes <= limitBytes) {
        extent.lengthBoundBytes += growthBytes;
        return;
    }
    // The bound counts every write as a new grain; near the limit only the file itself can tell.
    m_disk->flushChanges();
    extent.lengthBoundBytes = -1;
    // A file that is made on demand is measured once it is there, with its tables.
    if (!m_fileSystem->fileExists(extent.uri))
        return;
    unsigned int reserved = 0;
    extent.lengthBoundBytes =
        m_fileSystem->openFile(extent.uri, yx::IIOStream::ReadOnly, &reserved)->getLength();
    if (extent.lengthBoundBytes + growthBytes > limitBytes) {
        throw yx::CIOError(
            yx::CIOError::NoSpace,
            "The file could grow beyond the 2 TiB that one file of a disk can hold. Copy the disk "
            "to one that is split over several files.",
            yx::CProps()
                .add("uri", extent.uri.toString(true))
                .add("length", yx::toString(extent.lengthBoundBytes)),
            nullptr);
    }
    extent.lengthBoundBytes += growthBytes;
}

void SafeDisk::verifyMayWrite(__int64 positionBytes, __int64 bytes) {
    m_disk->seek(positionBytes);
    if (bytes > getSizeBytes() - positionBytes) {
        throw yx::CIOError(yx::CIOError::NotAllowed, "Write exceeds VMDK disk size.",
                           yx::CProps()
                               .add("mainFileURI", m_disk->getMainFileURI().toString(true))
                               .add("position", yx::toString(positionBytes))
                               .add("bytesToWrite", yx::toString(bytes)),
                           nullptr);
    }
    // A write of nothing is refused where a write is, and else does nothing.
    m_disk->write(nullptr, 0);
}

void SafeDisk::write(__int64 positionBytes, void const* buffer, int bytes) {
    verifyMayWrite(positionBytes, bytes);
    reserveRoom(positionBytes, bytes);
    if (!m_hasParent) {
        writePlain(positionBytes, buffer, bytes);
        return;
    }
    auto const* source = static_cast<unsigned char const*>(buffer);
    while (bytes > 0) {
        __int64 const inGrain = positionBytes % getGrainSizeBytes();
        int const step = static_cast<int>(std::min<__int64>(bytes, getGrainSizeBytes() - inGrain));
        if (yx::isAllZero(source, static_cast<std::size_t>(step)))
            writeZerosToGrain(positionBytes, step);
        else
            writePlain(positionBytes, source, step);
        positionBytes += step;
        source += step;
        bytes -= step;
    }
}

void SafeDisk::writePlain(__int64 positionBytes, void const* buffer, int bytes) {
    changeContentID();
    makeExtentFilesOnDemand(positionBytes, bytes);
    m_disk->seek(positionBytes);
    m_disk->write(buffer, bytes);
    m_haveUnflushedWrites = true;
}

void SafeDisk::writeZeros(__int64 positionBytes, __int64 bytes) {
    verifyMayWrite(positionBytes, bytes);
    while (bytes > 0) {
        __int64 const inGrain = positionBytes % getGrainSizeBytes();
        int const step = static_cast<int>(std::min<__int64>(bytes, getGrainSizeBytes() - inGrain));
        writeZerosToGrain(positionBytes, step);
        positionBytes += step;
        bytes -= step;
    }
}

void SafeDisk::writeZerosToGrain(__int64 positionBytes, int bytes) {
    __int64 const grainIndex = positionBytes / getGrainSizeBytes();
    if (!isGrainWritten(grainIndex))
        return;
    __int64 const grainStartBytes = grainIndex * getGrainSizeBytes();
    int const grainBytes = grainBytesAt(grainStartBytes);
    m_grain.setUsed(static_cast<int>(getGrainSizeBytes()));
    unsigned char* const grain = m_grain.getData();
    unsigned char* const range = grain + (positionBytes - grainStartBytes);
    auto const rangeSize = static_cast<std::size_t>(bytes);
    read(grainStartBytes, grain, grainBytes);
    if (yx::isAllZero(range, rangeSize))
        return;
    yx::initMemory(range, 0, rangeSize);
    reserveRoom(positionBytes, bytes);
    changeContentID();
    if (!m_hasParent || !yx::isAllZero(grain, static_cast<std::size_t>(grainBytes)))
        writePlain(positionBytes, range, bytes);
    else if (isWholeGrain(grainIndex))
        storeZeroGrain(grainIndex);
    else
        zeroShortGrain(grainStartBytes, grainBytes);
}

void SafeDisk::storeZeroGrain(__int64 grainIndex) {
    if (!m_preparedZeroGrain) {
        int const grainSizeBytes = static_cast<int>(getGrainSizeBytes());
        yx::P<yx::TBuffer<unsigned char>> const zeroGrain =
            yx::makeObject<yx::TBuffer<unsigned char>>(grainSizeBytes, -1);
        yx::initMemory(zeroGrain->getData(), 0, static_cast<std::size_t>(grainSizeBytes));
        yx::P<yx::TBuffer<unsigned char>> const aux = yx::makeObject<yx::TBuffer<unsigned char>>();
        m_preparedZeroGrain = m_preparer->prepareGrainData(zeroGrain.get(), 0, aux.get());
    }
    m_preparer->patchGrainIndexInPreparedGrainData(*m_preparedZeroGrain, grainIndex);
    makeExtentFilesOnDemand(grainIndex * getGrainSizeBytes(), 1);
    m_disk->seek(grainIndex * getGrainSizeBytes());
    m_disk->writePreparedGrainData(*m_preparedZeroGrain);
}

void SafeDisk::zeroShortGrain(__int64 grainStartBytes, int grainBytes) {
    unsigned char* const grain = m_grain.getData();
    read(grainStartBytes, grain, grainBytes);
    // Prepared data are for whole grains only. What the grain holds now gives it a place, where
    // zeros are stored like anything else; a power cut between leaves the old content.
    writePlain(grainStartBytes, grain, grainBytes);
    m_disk->flushChanges();
    yx::initMemory(grain, 0, static_cast<std::size_t>(grainBytes));
    writePlain(grainStartBytes, grain, grainBytes);
}

void SafeDisk::writePreparedGrain(__int64 grainIndex, yx::TBuffer<unsigned char> const& data) {
    __int64 const positionBytes = grainIndex * getGrainSizeBytes();
    verifyMayWrite(positionBytes, 0);
    reserveRoom(positionBytes, getGrainSizeBytes());
    if (isWholeGrain(grainIndex)) {
        changeContentID();
        makeExtentFilesOnDemand(positionBytes, 1);
    }
    m_disk->seek(positionBytes);
    m_disk->writePreparedGrainData(data);
}

void SafeDisk::flush() {
    m_disk->flushChanges();
    m_haveUnflushedWrites = false;
}

} // namespace kelm::host

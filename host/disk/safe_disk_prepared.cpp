#include "host/disk/safe_disk.h"
#include "kelm/extent/parent_disk_data_provider.h"
#include "kelm/format/constants.h"

namespace kelm::host {

namespace {

/// A record from an enciphered disk ends with its data. Stored like that, in another enciphered
/// disk, it would be enciphered without the padding that belongs to a record.
void padToSector(yx::TBuffer<unsigned char>& data) {
    int const surplusBytes = data.getUsed() % kSectorSizeBytes;
    if (surplusBytes == 0)
        return;
    int const sizeBytes = data.getUsed();
    int const paddingBytes = kSectorSizeBytes - surplusBytes;
    data.setUsed(sizeBytes + paddingBytes);
    yx::initMemory(data.getData() + sizeBytes, 0, static_cast<std::size_t>(paddingBytes));
}

} // namespace

bool SafeDisk::tryPreparedOp(__int64 grainIndex, std::function<void()> const& operation) {
    if (!isWholeGrain(grainIndex))
        return false;
    // Every further grain of such a parent would fail likewise.
    if (!m_parentIsOfOneForm && !isGrainWrittenHere(grainIndex))
        return false;
    try {
        operation();
        return true;
    } catch (yx::CIOError& error) {
        // The parent ends within the grain.
        if (m_hasParent && error.getIOCode() == yx::CIOError::NotAllowed)
            return false;
        throw;
    } catch (yx::CError& error) {
        if (error.getMessage() != kParentIncompatibleMessage)
            throw;
        m_parentIsOfOneForm = false;
        return false;
    }
}

bool SafeDisk::tryReadPreparedGrain(__int64 grainIndex, yx::TBuffer<unsigned char>& data) {
    bool const done = tryPreparedOp(grainIndex, [&] {
        m_disk->seek(grainIndex * getGrainSizeBytes());
        m_disk->readPreparedGrainData(data);
    });
    if (done)
        padToSector(data);
    return done;
}

void SafeDisk::makeGrainIndependentOfParent(__int64 grainIndex) {
    if (!m_hasParent)
        return;
    // A grain with unwritten changes and no place of its own would lose them.
    if (m_haveUnflushedWrites)
        flush();
    if (isGrainWrittenHere(grainIndex) || !isGrainWritten(grainIndex))
        return;
    reserveRoom(grainIndex * getGrainSizeBytes(), 1);
    makeExtentFilesOnDemand(grainIndex * getGrainSizeBytes(), 1);
    // The content stays the same, and so does the content ID: its children still know the disk.
    // `CVMDKDisk::makeGrainIndependentOfParent` would take a record from an enciphered parent
    // without its padding.
    if (!tryReadPreparedGrain(grainIndex, m_parentsGrain)) {
        copyPlainFromParent(grainIndex);
        return;
    }
    m_preparer->patchGrainIndexInPreparedGrainData(m_parentsGrain, grainIndex);
    m_disk->seek(grainIndex * getGrainSizeBytes());
    m_disk->writePreparedGrainData(m_parentsGrain);
}

void SafeDisk::copyPlainFromParent(__int64 grainIndex) {
    __int64 const grainStartBytes = grainIndex * getGrainSizeBytes();
    int const grainBytes = grainBytesAt(grainStartBytes);
    m_grain.setUsed(static_cast<int>(getGrainSizeBytes()));
    read(grainStartBytes, m_grain.getData(), grainBytes);
    if (!yx::isAllZero(m_grain.getData(), static_cast<std::size_t>(grainBytes))) {
        // Not noted as unwritten, which would flush for each grain: nothing is lost with these
        // bytes.
        m_disk->seek(grainStartBytes);
        m_disk->write(m_grain.getData(), grainBytes);
    } else if (isWholeGrain(grainIndex)) {
        storeZeroGrain(grainIndex);
    }
}

} // namespace kelm::host

#include "host/disk/prepared_reading.h"

#include <cassert>

#include "kelm/extent/parent_disk_data_provider.h"
#include "yx/error.h"

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

PreparedReading::PreparedReading(CVMDKDisk& disk, DiskLayout const& layout, DiskReading& reading)
    : m_layout(layout),
      m_reading(reading),
      m_hasParent(!disk.getParentDiskMainURI().isEmpty()),
      m_isCompressed(disk.getCompressed()) {}

bool PreparedReading::tryRead(__int64 grainIndex, yx::TBuffer<unsigned char>& data) {
    if (!m_layout.isWholeGrain(grainIndex))
        return false;
    // Every further grain of such a parent would fail likewise.
    if (!m_parentIsOfOneForm && !m_reading.isGrainWrittenHere(grainIndex))
        return false;
    bool const isRead = m_reading.useDisk(
        grainIndex, [&](CVMDKDisk& disk) { return tryReadFrom(disk, grainIndex, data); });
    if (!isRead)
        return false;
    padToSector(data);
    assert(m_isCompressed || data.getUsed() == m_layout.getGrainSizeBytes());
    return true;
}

bool PreparedReading::tryReadFrom(CVMDKDisk& disk, __int64 grainIndex,
                                  yx::TBuffer<unsigned char>& data) {
    try {
        disk.seek(grainIndex * m_layout.getGrainSizeBytes());
        disk.readPreparedGrainData(data);
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

} // namespace kelm::host

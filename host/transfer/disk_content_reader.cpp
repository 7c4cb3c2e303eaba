#include "host/transfer/disk_content_reader.h"

#include <algorithm>
#include <cassert>

#include "host/system/work_options.h"
#include "host/transfer/exact_size.h"
#include "host/transfer/grain_place.h"
#include "host/transfer/plain_grains.h"
#include "host/transfer/whole_reading.h"

namespace kelm::host {

DiskContentReader::DiskContentReader(SafeDisk& disk, CancelFlag const* cancel) : m_disk(disk) {
    beginWholeReading(disk, cancel);
    m_lengthBytes = getExactSizeBytes(disk);
    // Deciphering alone is so fast that handing it over takes as long.
    if (disk.getDisk().getCompressed())
        m_ahead.emplace(disk, countThreads(WorkOptions()));
}

/// Fills the buffer from the present position on.
void DiskContentReader::readAhead(unsigned char* buffer, int bytes) {
    __int64 const grainSizeBytes = m_disk.getGrainSizeBytes();
    for (__int64 position = m_positionBytes; bytes > 0;) {
        __int64 const offset = position % grainSizeBytes;
        int const partBytes = static_cast<int>(std::min<__int64>(bytes, grainSizeBytes - offset));
        yx::TBuffer<unsigned char> const* const grain = m_ahead->find(position / grainSizeBytes);
        assert(!grain || grain->getUsed() >= offset + partBytes);
        if (grain)
            yx::copyMemory(buffer, grain->getData() + offset, static_cast<std::size_t>(partBytes));
        else
            yx::initMemory(buffer, 0, static_cast<std::size_t>(partBytes));
        position += partBytes;
        buffer += partBytes;
        bytes -= partBytes;
    }
}

int DiskContentReader::readNext(unsigned char* buffer, int bytes, bool& isZero) {
    assert(bytes > 0);
    assert(m_positionBytes <= m_lengthBytes);
    int const count = static_cast<int>(std::min<__int64>(bytes, m_lengthBytes - m_positionBytes));
    if (count <= 0)
        return 0;
    isZero = !m_disk.isWritten(m_positionBytes, count);
    if (!isZero && m_ahead)
        readAhead(buffer, count);
    else if (!isZero)
        readWithGrainPlace(m_disk, m_positionBytes, buffer, count);
    m_positionBytes += count;
    return count;
}

__int64 DiskContentReader::countZeros(__int64 maxBytes) {
    if (m_positionBytes % m_disk.getGrainSizeBytes() != 0)
        return 0;
    __int64 const bytes = std::min({maxBytes, m_lengthBytes - m_positionBytes, kMaxCountedBytes});
    return bytes > 0 ? m_disk.countUnwrittenBytes(m_positionBytes, bytes) : 0;
}

void DiskContentReader::skipZeros(__int64 bytes) {
    assert(bytes >= 0 && bytes <= m_lengthBytes - m_positionBytes);
    m_positionBytes += bytes;
}

} // namespace kelm::host

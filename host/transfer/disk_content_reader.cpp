#include "host/transfer/disk_content_reader.h"

#include <algorithm>
#include <cassert>

#include "host/transfer/exact_size.h"
#include "host/transfer/grain_place.h"
#include "host/transfer/whole_reading.h"

namespace kelm::host {

DiskContentReader::DiskContentReader(SafeDisk& disk, CancelFlag const* cancel) : m_disk(disk) {
    beginWholeReading(disk, cancel);
    m_lengthBytes = getExactSizeBytes(disk);
}

int DiskContentReader::readNext(unsigned char* buffer, int bytes, bool& isZero) {
    assert(bytes > 0);
    assert(m_positionBytes <= m_lengthBytes);
    int const count = static_cast<int>(std::min<__int64>(bytes, m_lengthBytes - m_positionBytes));
    if (count <= 0)
        return 0;
    isZero = !m_disk.isWritten(m_positionBytes, count);
    if (!isZero)
        readWithGrainPlace(m_disk, m_positionBytes, buffer, count);
    m_positionBytes += count;
    return count;
}

} // namespace kelm::host

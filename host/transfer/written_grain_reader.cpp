#include "host/transfer/written_grain_reader.h"

#include <algorithm>
#include <cassert>

#include "host/transfer/grain_place.h"
#include "host/transfer/plain_grains.h"

namespace kelm::host {

WrittenGrainReader::WrittenGrainReader(SafeDisk& disk, TransferProgress& progress)
    : WrittenGrainReader(disk, progress, disk.getSizeBytes()) {}

WrittenGrainReader::WrittenGrainReader(SafeDisk& disk, TransferProgress& progress, __int64 endBytes)
    : m_disk(disk),
      m_progress(progress),
      m_endGrainIndex((endBytes + disk.getGrainSizeBytes() - 1) / disk.getGrainSizeBytes()) {
    assert(m_endGrainIndex >= 0 && m_endGrainIndex <= disk.getGrainCount());
}

bool WrittenGrainReader::findNext() {
    assert(m_nextGrainIndex <= m_endGrainIndex);
    while (m_nextGrainIndex < m_endGrainIndex && !m_disk.isGrainWritten(m_nextGrainIndex)) {
        m_progress.advanceTo(m_nextGrainIndex * m_disk.getGrainSizeBytes());
        m_nextGrainIndex += std::max<__int64>(
            countUnwrittenGrains(m_disk, m_nextGrainIndex, m_endGrainIndex - m_nextGrainIndex), 1);
    }
    return m_nextGrainIndex < m_endGrainIndex;
}

bool WrittenGrainReader::findNext(__int64& grainIndex) {
    if (!findNext())
        return false;
    grainIndex = m_nextGrainIndex++;
    return true;
}

bool WrittenGrainReader::readNext(yx::TBuffer<unsigned char>& grain, __int64& grainIndex,
                                  bool& isPrepared) {
    if (!findNext(grainIndex))
        return false;
    withGrainPlace(m_disk, grainIndex, [&] {
        isPrepared = m_disk.tryReadPreparedGrain(grainIndex, grain);
        if (!isPrepared)
            readPlainGrain(m_disk, grainIndex, grain);
    });
    m_progress.addRead(grain.getUsed());
    return true;
}

bool WrittenGrainReader::readNextPlain(yx::TBuffer<unsigned char>& grain, __int64& grainIndex) {
    if (!findNext(grainIndex))
        return false;
    withGrainPlace(m_disk, grainIndex, [&] { readPlainGrain(m_disk, grainIndex, grain); });
    m_progress.addRead(grain.getUsed());
    return true;
}

} // namespace kelm::host

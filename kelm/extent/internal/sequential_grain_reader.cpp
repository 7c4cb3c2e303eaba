#include "kelm/extent/internal/sequential_grain_reader.h"

#include <algorithm>
#include <cassert>
#include <utility>

#include "kelm/format/constants.h"
#include "yx/error.h"

namespace kelm {

SequentialGrainReader::SequentialGrainReader(yx::IIOStream* stream, CVMDKGrainDirectory* directory,
                                             CVMDKGrain* grain, __int64 grainSizeSectors,
                                             __int64 entriesPerTable)
    : m_stream(stream),
      m_directory(directory),
      m_grain(grain),
      m_grainSizeSectors(grainSizeSectors),
      m_grainSizeBytes(static_cast<int>(grainSizeSectors * kSectorSizeBytes)),
      m_entriesPerTable(entriesPerTable) {
    assert(m_grainSizeBytes > 0);
    assert(m_entriesPerTable > 0);
}

void SequentialGrainReader::beginRequest(__int64 position) {
    m_continues = position == m_wholeGrainsReadEnd;
    m_postponedFailure = nullptr;
}

void SequentialGrainReader::throwPostponedFailure() {
    if (m_postponedFailure)
        std::rethrow_exception(std::exchange(m_postponedFailure, nullptr));
}

int SequentialGrainReader::readStep(void* target, Progress const& progress) {
    assert(progress.bytesLeftInGrain > 0);
    assert(progress.bytesLeftInGrain <= std::min(progress.bytesLeft, m_grain->getBytesLeft()));
    assert(!m_postponedFailure);
    int step = progress.bytesLeftInGrain;
    bool const isWholeGrain = step == m_grainSizeBytes;
    if (isPassed(progress))
        step *= readPassedGrains(target, progress);
    else
        m_grain->read(target, step);
    assert(step <= progress.bytesLeft);
    if (step == progress.bytesLeft)
        m_wholeGrainsReadEnd = isWholeGrain ? progress.position + step : -1;
    return step;
}

bool SequentialGrainReader::isPassed(Progress const& progress) const {
    return progress.bytesLeftInGrain == m_grainSizeBytes &&
           (m_continues || progress.bytesLeft > m_grainSizeBytes);
}

/// Returns the number of grains read.
int SequentialGrainReader::readPassedGrains(void* target, Progress const& progress) {
    if (!m_grain->isInFileAlone()) {
        m_grain->read(target, m_grainSizeBytes);
        return 1;
    }
    // Without `m_continues`, a grain that ends the request is kept.
    __int64 const limit =
        (m_continues ? progress.bytesLeft : progress.bytesLeft - 1) / m_grainSizeBytes;
    // A `makeGrainIndependentOfParent` without a provider leaves a grain open that is not the
    // cursor's.
    bool const isCursorsGrain = progress.openGrainIndex == progress.position / m_grainSizeBytes;
    int const count =
        limit > 1 && isCursorsGrain ? countAdjacentGrains(progress.openGrainIndex, limit) : 1;
    int const readCount = count > 1 ? readAdjacentGrains(target, count) : 0;
    if (count > 1 && readCount < count)
        m_postponedFailure = nullptr;
    if (readCount == 0) {
        seekToGrain();
        m_stream->read(target, m_grainSizeBytes);
    }
    m_grain->skipToEnd();
    return std::max(readCount, 1);
}

/// Up to `limit` grains from the open one on, of one grain table, each of which begins in the file
/// where the one before it ends. One that cannot be opened ends them.
int SequentialGrainReader::countAdjacentGrains(__int64 firstGrainIndex, __int64 limit) {
    limit = std::min(limit, m_entriesPerTable - firstGrainIndex % m_entriesPerTable);
    __int64 const firstPosSectors = m_grain->getGrainStartPositionSectors();
    int count = 1;
    try {
        for (; count < limit; ++count) {
            __int64 posSectors = 0;
            __int64 slotSizeSectors = 0;
            m_directory->getGrainInfo(firstGrainIndex + count, posSectors, slotSizeSectors);
            if (posSectors != firstPosSectors + count * m_grainSizeSectors ||
                slotSizeSectors < m_grainSizeSectors)
                break;
        }
    } catch (...) {
        // A cache that does not keep the table makes each look at it a read that may fail. The
        // grains before are read first. Looking again might go well and hide the failure.
        m_postponedFailure = std::current_exception();
    }
    return count;
}

/// Returns the number of grains read, 0 if the first one cannot be read.
int SequentialGrainReader::readAdjacentGrains(void* target, int grainCount) {
    try {
        seekToGrain();
        return m_stream->readLax(target, grainCount * m_grainSizeBytes) / m_grainSizeBytes;
    } catch (yx::CError& error) {
        error.nop();
        int const readCount = countReadableGrains(target, grainCount);
        // A failure that did not come again.
        if (readCount == grainCount) {
            m_postponedFailure = nullptr;
            throw;
        }
        return readCount;
    }
}

/// Reads these grains one by one, up to the first that cannot be read.
int SequentialGrainReader::countReadableGrains(void* target, int grainCount) {
    auto* next = static_cast<unsigned char*>(target);
    int count = 0;
    try {
        seekToGrain();
        for (; count < grainCount && m_stream->readLax(next, m_grainSizeBytes) == m_grainSizeBytes;
             ++count)
            next += m_grainSizeBytes;
    } catch (yx::CError& error) {
        error.nop();
    }
    return count;
}

void SequentialGrainReader::seekToGrain() {
    assert(m_grain->getGrainStartPositionSectors() > 0);
    m_stream->seek(m_grain->getGrainStartPositionSectors() * kSectorSizeBytes);
}

} // namespace kelm

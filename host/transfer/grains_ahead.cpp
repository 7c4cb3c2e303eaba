#include "host/transfer/grains_ahead.h"

#include <algorithm>
#include <cassert>

#include "host/transfer/grain_pipeline.h"
#include "host/transfer/grain_place.h"
#include "host/transfer/plain_grains.h"

namespace kelm::host {

GrainsAhead::GrainsAhead(SafeDisk& disk, int threadCount)
    : m_disk(disk),
      m_unpreparer(disk, threadCount),
      m_pipeline(threadCount, GrainPipeline::calcItemCount(disk.getGrainSizeBytes(), threadCount),
                 [this](GrainItem& item, int worker) {
                     item.result = m_unpreparer.getPlain(item, worker);
                 }) {}

/// Returns false where there is no more to read: no free item, or a grain that cannot be read. Looks
/// at no grain from `endGrainIndex` on.
bool GrainsAhead::submitNext(__int64 endGrainIndex) {
    GrainItem* const free = m_pipeline.getFree();
    if (!free || m_failure)
        return false;
    free->grainIndex = m_nextGrainIndex++;
    try {
        if (!m_disk.isGrainWritten(free->grainIndex)) {
            if (m_nextGrainIndex < endGrainIndex)
                m_nextGrainIndex += countUnwrittenGrains(m_disk, m_nextGrainIndex,
                                                         endGrainIndex - m_nextGrainIndex);
            return true;
        }
        m_unpreparer.read(*free);
    } catch (yx::CError const&) {
        m_failure = std::current_exception();
        return false;
    }
    m_pipeline.submit();
    return true;
}

/// Not further, since looking for grains that are held may take long in a disk that holds few.
void GrainsAhead::fillUpTo(__int64 endGrainIndex) {
    __int64 const end = std::min(endGrainIndex, m_disk.getGrainCount());
    while (m_nextGrainIndex < end && submitNext(end)) {
    }
}

GrainItem& GrainsAhead::takeOldest() {
    try {
        return m_pipeline.takeOldest();
    } catch (yx::CIOError& error) {
        addGrainPlace(error, m_disk, m_pipeline.getTaken().grainIndex);
        throw;
    }
}

yx::TBuffer<unsigned char> const* GrainsAhead::find(__int64 grainIndex) {
    assert(grainIndex >= 0 && grainIndex < m_disk.getGrainCount());
    while (true) {
        if (m_taken && m_taken->grainIndex < grainIndex) {
            m_taken->result.reset();
            m_pipeline.recycle();
            m_taken = nullptr;
        }
        if (!m_pipeline.isBusy() && !m_failure)
            m_nextGrainIndex = std::max(m_nextGrainIndex, grainIndex);
        fillUpTo(grainIndex + static_cast<__int64>(m_pipeline.getItemCount()));
        if (!m_taken && m_pipeline.isBusy())
            m_taken = &takeOldest();
        if (!m_taken) {
            // Behind a failure nothing is known.
            if (m_failure && m_nextGrainIndex <= grainIndex + 1)
                std::rethrow_exception(m_failure);
            return nullptr;
        }
        if (m_taken->grainIndex >= grainIndex)
            return m_taken->grainIndex == grainIndex ? m_taken->result.get() : nullptr;
    }
}

} // namespace kelm::host

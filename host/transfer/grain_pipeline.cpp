#include "host/transfer/grain_pipeline.h"

#include <cassert>

namespace kelm::host {

namespace {

constexpr int kBuffersPerItem = 3;

[[maybe_unused]] bool isResultOfItsOwn(GrainItem const& item) {
    return !item.result || item.result == item.input || item.result == item.aux1 ||
           item.result == item.aux2;
}

} // namespace

GrainPipeline::GrainPipeline(int threadCount, __int64 grainSizeBytes, Work work)
    : m_pipeline(threadCount, calcItemCount(grainSizeBytes, threadCount), std::move(work)) {}

int GrainPipeline::calcItemCount(__int64 grainSizeBytes, int threadCount) {
    // A prepared grain can be a little larger than a plain one.
    __int64 const bufferBytes = grainSizeBytes + grainSizeBytes / 16 + 4096;
    return OrderedWorkers::calcSlotCount(kBuffersPerItem * bufferBytes, threadCount);
}

GrainItem& GrainPipeline::takeOldest(Explain const& explain) {
    try {
        return m_pipeline.takeOldest();
    } catch (yx::CIOError& error) {
        if (explain && error.getIOCode() == yx::CIOError::CorruptData)
            explain(error, m_pipeline.getTaken().grainIndex);
        throw;
    }
}

void GrainPipeline::run(Fill const& fill, Drain const& drain, Explain const& explain) {
    bool more = true;
    [[maybe_unused]] __int64 lastFilled = -1;
    [[maybe_unused]] __int64 lastDrained = -1;
    while (more || m_pipeline.isBusy()) {
        GrainItem* const free = more ? m_pipeline.getFree() : nullptr;
        if (free) {
            assert(!free->result && !free->resultIsEnciphered);
            more = fill(*free);
            if (!more)
                continue;
            assert(free->grainIndex > lastFilled);
            lastFilled = free->grainIndex;
            m_pipeline.submit();
            continue;
        }
        GrainItem& oldest = takeOldest(explain);
        assert(oldest.grainIndex > lastDrained && isResultOfItsOwn(oldest));
        lastDrained = oldest.grainIndex;
        drain(oldest);
        oldest.result.reset();
        oldest.resultIsEnciphered = false;
        m_pipeline.recycle();
    }
    assert(lastDrained == lastFilled);
}

} // namespace kelm::host

#include "tests/support/fake_grain_allocator.h"

#include <algorithm>

#include "kelm/format/constants.h"
#include "yx/error.h"

namespace test_support {

FakeGrainAllocator::Slot FakeGrainAllocator::slotOf(__int64 grainIndex) const {
    auto const found = m_table.find(grainIndex);
    return found == m_table.end() ? Slot() : found->second;
}

__int64 FakeGrainAllocator::allocNewGrain(__int64 grainIndex, void const* data, int size,
                                          int slotSizeSectors) {
    failIfAsked();
    m_stream->seek(m_nextPosSectors * kelm::kSectorSizeBytes);
    m_stream->write(data, size, nullptr);
    return enter({grainIndex, size, slotSizeSectors, false});
}

__int64 FakeGrainAllocator::allocNewGrainKeepBuffer(
    __int64 grainIndex, yx::TConstBufferSlice<unsigned char> const& data, int slotSizeSectors) {
    failIfAsked();
    m_stream->seek(m_nextPosSectors * kelm::kSectorSizeBytes);
    m_stream->writeKeepBuffer(data, nullptr);
    return enter({grainIndex, data.getLength(), slotSizeSectors, true});
}

void FakeGrainAllocator::failIfAsked() {
    if (m_failing)
        throw yx::CIOError(yx::CIOError::NoSpace, "Scripted allocation failure.", yx::CProps(),
                           nullptr);
}

__int64 FakeGrainAllocator::enter(Allocation const& allocation) {
    fill((m_nextPosSectors + allocation.slotSizeSectors) * kelm::kSectorSizeBytes);
    m_allocations.push_back(allocation);
    m_table[allocation.grainIndex] = {m_nextPosSectors, allocation.slotSizeSectors};
    m_nextPosSectors += allocation.slotSizeSectors;
    return m_table[allocation.grainIndex].posSectors;
}

void FakeGrainAllocator::fill(__int64 endBytes) {
    static constexpr unsigned char kZeros[kelm::kSectorSizeBytes] = {};
    while (m_stream->getPosition() < endBytes)
        m_stream->write(
            kZeros,
            static_cast<int>(std::min<__int64>(sizeof(kZeros), endBytes - m_stream->getPosition())),
            nullptr);
}

} // namespace test_support

#include "host/check/grain_tables.h"

#include <cassert>
#include <cstdint>
#include <utility>

#include "kelm/format/constants.h"
#include "kelm/format/internal/little_endian.h"

namespace kelm::host {

namespace {

using PositionEntry = std::uint32_t;
using SlotSizeEntry = std::uint16_t;

static_assert(sizeof(PositionEntry) * kGrainTableEntryCount == kGrainTableSizeBytes &&
              sizeof(SlotSizeEntry) * kGrainTableEntryCount == kSlotSizeTableSizeBytes);

template <class Entry>
__int64 loadTableEntry(ExtentReader::Bytes const& table, int index) {
    assert(index >= 0 && index < kGrainTableEntryCount);
    return loadLittleEndian<Entry>(table.data() + static_cast<std::size_t>(index) * sizeof(Entry));
}

} // namespace

GrainTables::GrainTables(ExtentReader::Bytes positions, ExtentReader::Bytes slotSizes)
    : m_positions(std::move(positions)), m_slotSizes(std::move(slotSizes)) {
    assert(m_positions.size() == kGrainTableSizeBytes);
    assert(m_slotSizes.empty() || m_slotSizes.size() == kSlotSizeTableSizeBytes);
}

__int64 GrainTables::getPosition(int index) const {
    return loadTableEntry<PositionEntry>(m_positions, index);
}

__int64 GrainTables::getSlotSizeSectors(int index) const {
    assert(hasSlotSizes());
    return loadTableEntry<SlotSizeEntry>(m_slotSizes, index);
}

} // namespace kelm::host

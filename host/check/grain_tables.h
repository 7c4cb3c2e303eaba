#pragma once

#include "host/check/extent_reader.h"

namespace kelm::host {

/// What the tables say about one run of grains. Grains are counted from 0 within the run.
class GrainTables {
public:
    /// `positions` are the bytes of a grain table, `slotSizes` those of a slot size table, or none
    /// where there is no such table.
    GrainTables(ExtentReader::Bytes positions, ExtentReader::Bytes slotSizes);

    /// The sector at which a grain lies; 0 if it has no place.
    __int64 getPosition(int index) const;

    /// Whether there is a slot size table.
    bool hasSlotSizes() const { return !m_slotSizes.empty(); }

    /// The sectors that a grain's slot takes. Only with slot sizes.
    __int64 getSlotSizeSectors(int index) const;

private:
    ExtentReader::Bytes m_positions;
    ExtentReader::Bytes m_slotSizes;
};

} // namespace kelm::host

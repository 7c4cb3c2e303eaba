#pragma once

#include <string>

#include "host/check/extent_reader.h"
#include "host/check/extent_shape.h"
#include "host/check/grain_tables.h"
#include "host/disk/sector_map.h"

namespace kelm::host {

/// Checks the slots in which the grains of an extent lie, and the records of compressed grains.
class SlotCheck {
public:
    /// All arguments must outlive the object.
    SlotCheck(ExtentReader& reader, ExtentShape const& shape, ExtentFindings& findings)
        : m_reader(reader), m_shape(shape), m_findings(findings) {}

    /// Checks the slot of a grain, which is the grain `entry` of `tables` and `grain` of the
    /// extent. Takes its sectors in `taken`.
    void run(__int64 grain, int entry, GrainTables const& tables, SectorMap& taken);

    /// Where the data of the grains ends, as far as their slots have been checked.
    __int64 getDataEndSectors() const { return m_dataEndSectors; }

private:
    __int64 checkSize(CheckedThing const& grain, int entry, GrainTables const& tables);
    __int64 checkRecordWithoutSlot(CheckedThing const& grain, __int64 positionSectors);
    __int64 checkRecord(CheckedThing const& grain, __int64 positionSectors);

    ExtentReader& m_reader;
    ExtentShape const& m_shape;
    ExtentFindings& m_findings;
    __int64 m_dataEndSectors = 0;
    __int64 m_largestSlotSectors = 0;
};

} // namespace kelm::host

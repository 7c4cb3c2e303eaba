#pragma once

#include <optional>
#include <string>

#include "host/check/slot_check.h"
#include "host/check/table_directories.h"

namespace kelm::host {

/// Checks the grain tables of an extent, their redundant copies, and the slots that they name.
class TableCheck {
public:
    /// `shape`, `reader` and `findings` must outlive the object.
    TableCheck(ExtentReader& reader, ExtentShape const& shape, ExtentFindings& findings)
        : m_reader(reader),
          m_shape(shape),
          m_findings(findings),
          m_directories(reader, shape, findings),
          m_slots(reader, shape, findings) {}

    /// Must come first. False, with a finding, if there are no tables to be checked.
    bool findDirectories() { return m_directories.find(); }

    /// Checks a table, and takes its sectors in `taken`. Then come the slots of its grains.
    void beginTable(__int64 table, SectorMap& taken);

    /// Checks the slot of the grain `entry` of the table that was begun, and takes its sectors in
    /// `taken`. Does nothing for a table whose slots are not to be found.
    void checkSlot(int entry, SectorMap& taken);

    /// Where the data of the grains ends, as far as their tables have been checked.
    __int64 getDataEndSectors() const { return m_slots.getDataEndSectors(); }

private:
    void checkRedundantTable(CheckedThing const& table, ExtentReader::Bytes const& entries,
                             TablePlaces const& places);
    ExtentReader::Bytes readSlotSizes(CheckedThing const& table, TablePlaces const& places);

    ExtentReader& m_reader;
    ExtentShape const& m_shape;
    ExtentFindings const& m_findings;
    TableDirectories m_directories;
    SlotCheck m_slots;

    /// The table that was begun; nothing if it cannot be used.
    std::optional<GrainTables> m_tables;
    __int64 m_firstGrain = 0;
};

} // namespace kelm::host

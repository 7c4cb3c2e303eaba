#include "host/check/table_check.h"

#include <cassert>
#include <utility>

#include "kelm/format/constants.h"

namespace kelm::host {

void TableCheck::beginTable(__int64 table, SectorMap& taken) {
    assert(table >= 0 && table < m_shape.tableCount);
    m_tables.reset();
    m_firstGrain = table * kGrainTableEntryCount;
    CheckedThing const thing = m_shape.tableAt(table);
    std::string const name = thing.getName();
    TablePlaces const places = m_directories.readPlaces(table);
    if (!m_reader.contains(places.table, kGrainTableSizeBytes)) {
        m_findings.addOnce(thing, name + " lies outside the file");
        return;
    }
    // Its grains would be findings too, each of them twice.
    if (taken.take(places.table, kGrainTableSizeSectors) != -1) {
        m_findings.addInStretch(thing, name + " shares its place with something else");
        return;
    }
    std::optional<ExtentReader::Bytes> entries =
        m_reader.tryRead(places.table, kGrainTableSizeBytes, name, thing);
    if (!entries)
        return;
    if (!m_findings.isRepeating() && m_directories.hasRedundant())
        checkRedundantTable(thing, *entries, places);
    ExtentReader::Bytes slotSizes;
    if (m_directories.hasSlotSizes())
        slotSizes = readSlotSizes(thing, places);
    m_tables.emplace(std::move(*entries), std::move(slotSizes));
}

void TableCheck::checkSlot(int entry, SectorMap& taken) {
    if (m_tables)
        m_slots.run(m_firstGrain + entry, entry, *m_tables, taken);
}

void TableCheck::checkRedundantTable(CheckedThing const& table, ExtentReader::Bytes const& entries,
                                     TablePlaces const& places) {
    assert(entries.size() == kGrainTableSizeBytes);
    std::string const name = table.getName();
    std::string const copyName = "the redundant copy of " + name;
    if (places.redundantTable == places.table) {
        m_findings.addOnce(table, name + " is its own redundant copy");
    } else if (!m_reader.contains(places.redundantTable, kGrainTableSizeBytes)) {
        m_findings.addOnce(table, copyName + " lies outside the file");
    } else {
        std::optional<ExtentReader::Bytes> const copy =
            m_reader.tryRead(places.redundantTable, kGrainTableSizeBytes, copyName, table);
        if (copy && *copy != entries)
            m_findings.addOnce(table, name + " differs from its redundant copy");
    }
}

ExtentReader::Bytes TableCheck::readSlotSizes(CheckedThing const& table,
                                              TablePlaces const& places) {
    assert(m_shape.compressed && "only compressed extents have slot sizes");
    std::string const name = "slot size table " + std::to_string(table.number);
    if (!m_reader.contains(places.slotSizeTable, kSlotSizeTableSizeBytes)) {
        m_findings.addOnce(table, name + " lies outside the file");
        return {};
    }
    return m_reader.tryRead(places.slotSizeTable, kSlotSizeTableSizeBytes, name, table)
        .value_or(ExtentReader::Bytes());
}

} // namespace kelm::host

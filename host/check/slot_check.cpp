#include "host/check/slot_check.h"

#include <algorithm>
#include <cassert>

#include "host/check/table_limits.h"
#include "host/disk/record_size.h"
#include "kelm/format/constants.h"

namespace kelm::host {

void SlotCheck::run(__int64 grain, int entry, GrainTables const& tables, SectorMap& taken) {
    assert(grain >= 0 && grain % kGrainTableEntryCount == entry);
    __int64 const position = tables.getPosition(entry);
    if (position == 0)
        return;
    // All else was found the first time, and the record need not be read again.
    if (m_findings.isRepeating() && !taken.reaches(position, m_largestSlotSectors))
        return;
    CheckedThing const thing = m_shape.grainAt(grain);
    std::string const name = thing.getName();
    if (grain >= m_shape.grainCount) {
        m_findings.addOnce(thing, "the entry of " + name + " is set, which is behind the end");
        return;
    }
    if (position < static_cast<__int64>(std::min<unsigned long long>(
                       m_shape.header.getOverheadSectors(), kTableReachSectors))) {
        m_findings.addOnce(thing, name + " lies in the metadata");
        return;
    }
    if (!m_reader.contains(position, m_shape.compressed ? kSectorSizeBytes : 1)) {
        m_findings.addBehindEnd(thing, name + " lies outside the file");
        return;
    }
    __int64 const size = checkSize(thing, entry, tables);
    assert(size >= 0);
    m_largestSlotSectors = std::max(m_largestSlotSectors, size);
    if (!m_reader.contains(position, size * kSectorSizeBytes))
        m_findings.addBehindEnd(thing, name + " reaches behind the end of the file");
    __int64 const shared = taken.take(position, size);
    if (shared != -1) {
        m_findings.addInStretch(thing, name + " shares its place with something else, at sector " +
                                           std::to_string(shared));
    }
    m_dataEndSectors = std::max(m_dataEndSectors, position + size);
}

/// Returns the size of the slot in sectors.
__int64 SlotCheck::checkSize(CheckedThing const& grain, int entry, GrainTables const& tables) {
    if (!m_shape.compressed)
        return m_shape.grainSizeSectors;
    __int64 const position = tables.getPosition(entry);
    if (!tables.hasSlotSizes())
        return checkRecord(grain, position);
    __int64 const slotSectors = tables.getSlotSizeSectors(entry);
    if (slotSectors == 0)
        return checkRecordWithoutSlot(grain, position);
    // Reading the records is what takes long; once is enough.
    if (!m_findings.isRepeating() && checkRecord(grain, position) > slotSectors)
        m_findings.addOnce(grain, "the record of " + grain.getName() + " does not fit its slot");
    return slotSectors;
}

/// A power cut leaves that where the places of grains have reached the device and the sizes of their
/// slots have not. Readers have the grain all the same.
__int64 SlotCheck::checkRecordWithoutSlot(CheckedThing const& grain, __int64 positionSectors) {
    __int64 const recordSectors = checkRecord(grain, positionSectors);
    if (recordSectors > 0) {
        m_findings.addReadable(grain, grain.getName() +
                                          " has no slot yet, as a power cut can leave it; it is "
                                          "read by its record, and the next writer gives it one");
    }
    return recordSectors;
}

/// Returns how many sectors the record takes; 0 if it cannot be read or is another grain's.
__int64 SlotCheck::checkRecord(CheckedThing const& grain, __int64 positionSectors) {
    assert(m_shape.compressed);
    std::string const name = "the record of " + grain.getName();
    std::optional<ExtentReader::Bytes> const record =
        m_reader.tryRead(positionSectors, kSectorSizeBytes, name, grain);
    if (!record)
        return 0;
    // Unsigned, since the index that a bad descriptor leads to may be anything.
    auto const lba = static_cast<unsigned long long>(grain.number) *
                     static_cast<unsigned long long>(m_shape.grainSizeSectors);
    if (loadGrainRecordLBA(record->data()) != lba) {
        m_findings.addOnce(grain, name + " names another grain");
        // Nor is its size that of this grain.
        return 0;
    }
    return recordSizeSectors(m_shape.header, loadGrainRecordCompressedSize(record->data()));
}

} // namespace kelm::host

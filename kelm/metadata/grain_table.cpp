#include "kelm/metadata/grain_table.h"

#include <cassert>
#include <limits>

#include "kelm/metadata/internal/table_io.h"
#include "yx/error.h"
#include "yx/log.h"

namespace kelm {

namespace {

constexpr char kGetGrainInfoName[] = "CVMDKGrainTable::getGrainInfo";
constexpr char kSetGrainInfoName[] = "CVMDKGrainTable::setGrainInfo";

constexpr char kTablePosField[] = "grain table position";
constexpr char kRedundantTablePosField[] = "redundant grain table position";
constexpr char kSlotTablePosField[] = "slot size table position";

/// A table is read and written in one piece, whose size is an `int`.
void verifyEntryCount(yx::IStreamBase& stream, int entryCount) {
    __int64 const tableSizeBytes = __int64{entryCount} * __int64{sizeof(unsigned int)};
    if (tableSizeBytes < 0 || tableSizeBytes > std::numeric_limits<int>::max() ||
        !isMetadataSizePlausible(stream, tableSizeBytes)) {
        throwCorruptField(stream, "grain table size", entryCount);
    }
}

} // namespace

CVMDKGrainTable::CVMDKGrainTable(yx::IIOStream* stream, yx::IIOStream::Access access,
                                 __int64 grainSizeSectors, __int64 tablePosSectors,
                                 __int64 redundantTablePosSectors, __int64 slotTablePosSectors,
                                 int entryCount)
    : m_stream(stream),
      m_access(access),
      m_grainSizeSectors(grainSizeSectors),
      m_tablePosSectors(tablePosSectors),
      m_redundantTablePosSectors(redundantTablePosSectors),
      m_slotTablePosSectors(slotTablePosSectors),
      m_entryCount(entryCount) {
    verifyEntryCount(*m_stream, m_entryCount);
    readNumbers(*m_stream, m_tablePosSectors, kTablePosField, m_entries, m_entryCount);
    if (m_slotTablePosSectors > 0)
        readNumbers(*m_stream, m_slotTablePosSectors, kSlotTablePosField, m_slotSizes,
                    m_entryCount);
    assert(m_entries.getUsed() == m_entryCount);
    assert(m_slotSizes.getUsed() == 0 || m_slotSizes.getUsed() == m_entryCount);
}

CVMDKGrainTable::~CVMDKGrainTable() {
    try {
        CVMDKGrainTable::flushChangesToStream();
    } catch (std::exception& error) {
        yx::onExceptionInDestructorIgnored("kelm::CVMDKGrainTable", error, true);
    }
}

void CVMDKGrainTable::getGrainInfo(__int64 index, __int64& posSectors, __int64& slotSizeSectors) {
    verifyIndex(index, kGetGrainInfoName);
    posSectors = m_entries.getData()[index];
    if (posSectors == 0)
        slotSizeSectors = 0;
    else if (getSlotSizeTrackingEnabled())
        slotSizeSectors = m_slotSizes.getData()[index];
    else
        slotSizeSectors = m_grainSizeSectors;
}

void CVMDKGrainTable::setGrainInfo(__int64 index, __int64 posSectors, __int64 slotSizeSectors) {
    verifyIndex(index, kSetGrainInfoName);
    verifySlotSize(posSectors, slotSizeSectors);
    // Deliberately last: a bad argument for a read-only table is reported as a bad argument.
    verifyWritable();

    // Both stores drop the bits that the file has no room for, deliberately without a check: the
    // entry format sets the limit, and whoever makes the file keeps it below 2 TiB.
    unsigned int& entry = m_entries.getData()[index];
    if (entry != posSectors) {
        entry = static_cast<unsigned int>(posSectors);
        noteChange(m_entriesDirty);
    }
    if (!getSlotSizeTrackingEnabled())
        return;
    unsigned short& slotSize = m_slotSizes.getData()[index];
    if (slotSize != slotSizeSectors) {
        slotSize = static_cast<unsigned short>(slotSizeSectors);
        noteChange(m_slotSizesDirty);
    }
}

void CVMDKGrainTable::noteChange(bool& dirtyFlag) {
    if (!hasUnflushedChanges())
        m_changeCount.noteChange();
    dirtyFlag = true;
}

bool CVMDKGrainTable::countChangesIn(CVMDKTableChangeCount* count) {
    if (!m_changeCount.get())
        m_changeCount.set(count);
    return m_changeCount.get() == count;
}

CVMDKGrainTable::Usage CVMDKGrainTable::calcUsage(int entryCount) const {
    assert(entryCount <= m_entryCount);
    unsigned int const* const entries = m_entries.getData();
    Usage usage;
    for (int i = 0; i < entryCount; ++i)
        usage.grains += entries[i] != 0 ? 1 : 0;
    usage.slotSectors = usage.grains * m_grainSizeSectors;
    if (!getSlotSizeTrackingEnabled() || usage.grains == 0)
        return usage;
    unsigned short const* const slotSizes = m_slotSizes.getData();
    usage.slotSectors = 0;
    for (int i = 0; i < entryCount; ++i)
        usage.slotSectors += entries[i] != 0 ? slotSizes[i] : 0;
    return usage;
}

void CVMDKGrainTable::flushChangesToStream() {
    assert(!hasUnflushedChanges() || m_access == yx::IIOStream::ReadWrite);
    assert(!m_slotSizesDirty || getSlotSizeTrackingEnabled());
    if (m_entriesDirty) {
        writeNumbers(*m_stream, m_tablePosSectors, kTablePosField, m_entries);
        if (m_redundantTablePosSectors > 0)
            writeNumbers(*m_stream, m_redundantTablePosSectors, kRedundantTablePosField, m_entries);
        m_entriesDirty = false;
    }
    if (m_slotSizesDirty) {
        writeNumbers(*m_stream, m_slotTablePosSectors, kSlotTablePosField, m_slotSizes);
        m_slotSizesDirty = false;
    }
}

void CVMDKGrainTable::verifyIndex(__int64 index, char const* function) {
    if (index < 0 || index >= m_entryCount) {
        throw yx::CInvalidArgError(function, "Invalid grain index: " + yx::toString(index),
                                   uriPropsOf(*m_stream));
    }
}

void CVMDKGrainTable::verifySlotSize(__int64 posSectors, __int64 slotSizeSectors) {
    if (!getSlotSizeTrackingEnabled() && slotSizeSectors != m_grainSizeSectors) {
        throw yx::CInvalidArgError(
            kSetGrainInfoName,
            "Invalid grain slot size - it must equal the grain size (slot size: " +
                yx::toString(slotSizeSectors) +
                ", grain size: " + yx::toString(m_grainSizeSectors) + ")",
            uriPropsOf(*m_stream));
    }
    // Deliberately also where the position is 0: a caller that clears an entry passes a positive
    // slot size.
    if (slotSizeSectors < 1) {
        throw yx::CInvalidArgError(kSetGrainInfoName, "Invalid grain slot size.",
                                   uriPropsOf(*m_stream)
                                       .add("slotSizeSectors", yx::toString(slotSizeSectors))
                                       .add("grainSizeSectors", yx::toString(m_grainSizeSectors))
                                       .add("posSectors", yx::toString(posSectors)));
    }
}

void CVMDKGrainTable::verifyWritable() const {
    if (m_access != yx::IIOStream::ReadWrite) {
        throw yx::CError("Internal error: CVMDKGrainTable::setGrainInfo was called, but the table "
                         "was not opened for writing.",
                         "", -1, yx::CProps(), nullptr);
    }
}

} // namespace kelm

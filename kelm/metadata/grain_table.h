#pragma once

#include "kelm/export.h"
#include "kelm/metadata/table_change_count.h"
#include "yx/stream.h"

namespace kelm {

/// The memory copy of one grain table of a sparse extent: where each grain lies in the file, and
/// how many sectors are reserved for it there.
///
/// In the file, little-endian:
///
///     area             at sector                 element                read   written
///     grain table      tablePosSectors           32-bit position        once   on flush
///     redundant table  redundantTablePosSectors  the same bytes         never  on flush
///     slot-size table  slotTablePosSectors       16-bit size (sectors)  once   on flush
///
/// All positions are sector numbers from the start of the file. A grain position of 0 means that
/// the grain has no data in this extent; every other value, 1 included, is where its data begins. A
/// slot may be larger than what the grain's present data needs, so that a compressed grain can be
/// rewritten in place; in an extent without a slot-size table each slot is as large as a grain.
///
/// Changes stay in memory until `flushChangesToStream` or the last release. Each operation seeks
/// before it reads or writes, and none restores the stream's position. Not thread-safe.
class KELM_API CVMDKGrainTable : public yx::CBase, public virtual yx::IBase {
public:
    /// What grains take.
    struct Usage {
        /// How many have data.
        __int64 grains = 0;
        /// The slots of those together.
        __int64 slotSectors = 0;

        /// Adds what other grains take.
        Usage& operator+=(Usage const& other) {
            grains += other.grains;
            slotSectors += other.slotSectors;
            return *this;
        }
    };

    /// Loads the table. `redundantTablePosSectors` or `slotTablePosSectors` of 0 or below means
    /// that the file has no such table; without slot-size table, tracking of slot sizes is off.
    ///
    /// A negative entry count, a position that cannot be in a file, and a large table that exceeds
    /// the stream are `yx::CIOError` `CorruptData` with "uri". What the stream fails with passes.
    CVMDKGrainTable(yx::IIOStream* stream, yx::IIOStream::Access access, __int64 grainSizeSectors,
                    __int64 tablePosSectors, __int64 redundantTablePosSectors,
                    __int64 slotTablePosSectors, int entryCount);

    /// A copy shares the stream and takes the unflushed changes along.
    CVMDKGrainTable(CVMDKGrainTable const&) = default;
    CVMDKGrainTable& operator=(CVMDKGrainTable const&) = default;

    /// Flushes. A failure is reported to `yx::onExceptionInDestructorIgnored`, and the changes are
    /// lost.
    ~CVMDKGrainTable() override;

    /// Where grain `index` of this table lies and how large its slot is, both in sectors; 0 and 0
    /// if it has no data. An index outside the table is `yx::CInvalidArgError` "Invalid grain
    /// index: <index>" with "uri".
    void getGrainInfo(__int64 index, __int64& posSectors, __int64& slotSizeSectors);

    /// Enters a grain's position, 0 for none, and its slot size. The file keeps the low 32 bits of
    /// the position and the low 16 bits of the slot size.
    ///
    /// Throws, in this order and with nothing changed, `yx::CInvalidArgError` with "uri" for an
    /// index outside the table, for a slot size other than the grain size where tracking is off,
    /// and for a slot size below 1; then `yx::CError` for a table that is not open for writing.
    void setGrainInfo(__int64 index, __int64 posSectors, __int64 slotSizeSectors);

    /// The usage of the first `entryCount` grains, by what `getGrainInfo` returns for them; at most
    /// as many as the table has.
    Usage calcUsage(int entryCount) const;

    /// Whether the table keeps a slot size for each grain.
    bool getSlotSizeTrackingEnabled() const { return m_slotSizes.getUsed() > 0; }

    /// Whether a flush would write.
    bool hasUnflushedChanges() const { return m_entriesDirty || m_slotSizesDirty; }

    /// From now on the table counts each time that it gets its first unflushed change. It counts in
    /// one place only: false if it does so in another already, and goes on there.
    bool countChangesIn(CVMDKTableChangeCount* count);

    /// Writes what has changed: the table, its redundant copy, the slot sizes. After a failure the
    /// area that failed still counts as changed, so the next call tries it again.
    void flushChangesToStream();

private:
    void noteChange(bool& dirtyFlag);
    void verifyIndex(__int64 index, char const* function);
    void verifySlotSize(__int64 posSectors, __int64 slotSizeSectors);
    void verifyWritable() const;

    yx::P<yx::IIOStream> m_stream;
    yx::IIOStream::Access m_access;
    __int64 m_grainSizeSectors;
    __int64 m_tablePosSectors;
    __int64 m_redundantTablePosSectors;
    __int64 m_slotTablePosSectors;
    int m_entryCount;
    yx::TBuffer<unsigned int> m_entries;
    bool m_entriesDirty = false;
    yx::TBuffer<unsigned short> m_slotSizes;
    bool m_slotSizesDirty = false;
    CVMDKTableChangeCountRef m_changeCount;
};

} // namespace kelm

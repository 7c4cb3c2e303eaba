#include "host/disk/slot_repair.h"

#include <algorithm>
#include <cassert>

#include "host/disk/record_size.h"
#include "host/disk/sector_map.h"
#include "kelm/format/constants.h"
#include "kelm/format/marker.h"
#include "kelm/metadata/grain_directory.h"

namespace kelm::host {

namespace {

/// How much of a file is looked at in one go where its grains lie in disorder: 128 GiB, for 32 MiB
/// of memory.
constexpr __int64 kStretchSectors = 1LL << 28;

/// How many grains are gone through before their tables leave the memory: 1024 tables of 3 KiB.
constexpr __int64 kGrainsInMemory = __int64{1024} * kGrainTableEntryCount;

class SlotRepair {
public:
    SlotRepair(yx::IIOStream& stream, DiskExtent const& extent)
        : m_stream(stream), m_extent(extent) {}

    __int64 run() {
        openDirectory();
        if (!m_header.isCompressed())
            return 0;
        m_dataEndSectors = findDataEnd();
        if (isInOrder())
            return 0;
        for (__int64 start = 0; start < m_dataEndSectors; start += kStretchSectors)
            repairStretch(start, std::min(start + kStretchSectors, m_dataEndSectors));
        if (m_repairCount > 0)
            m_stream.flush();
        return m_repairCount;
    }

private:
    struct Slot {
        __int64 grainIndex;
        __int64 posSectors;
        __int64 sizeSectors;
    };

    void openDirectory() {
        m_stream.seek(0);
        yx::CDataInStream in(&m_stream);
        m_header.load(in);
        m_tables = yx::makeObject<CVMDKGrainTableCache>(CVMDKGrainTableCache::kNoLimit);
        m_directory = yx::makeObject<CVMDKGrainDirectory>(&m_stream, yx::IIOStream::ReadWrite,
                                                          m_header, m_tables.get());
        m_grainCount = CVMDKGrainDirectory::calcExtentGrainCount(
            static_cast<__int64>(m_header.getCapacitySectors()),
            static_cast<__int64>(m_header.getGrainSizeSectors()));
    }

    /// Calls `visit` for each stored grain until it says that it has seen enough.
    template <class Visit>
    void visitSlots(Visit const& visit) {
        for (__int64 grain = 0; grain < m_grainCount; ++grain) {
            if (grain % kGrainsInMemory == 0) {
                // A table that leaves the cache unflushed could not report a failure.
                m_directory->flushChangesToStream();
                if (grain > 0)
                    m_tables->clear();
            }
            Slot slot{grain, 0, 0};
            m_directory->getGrainInfo(grain, slot.posSectors, slot.sizeSectors);
            if (slot.posSectors > 0 && !visit(slot))
                break;
        }
        m_directory->flushChangesToStream();
    }

    /// Whether each slot lies behind that of the grain before it and inside the file, as an import
    /// leaves them. Then nothing is wrong.
    bool isInOrder() {
        __int64 endSectors = 0;
        bool isInOrder = true;
        visitSlots([&](Slot const& slot) {
            isInOrder = slot.sizeSectors > 0 && slot.posSectors >= endSectors;
            endSectors = slot.posSectors + slot.sizeSectors;
            return isInOrder;
        });
        return isInOrder && endSectors <= m_dataEndSectors;
    }

    /// Repairs the slots that begin in a stretch of the file.
    void repairStretch(__int64 startSectors, __int64 endSectors) {
        // A slot may reach over the end of the stretch.
        SectorMap starts(startSectors, endSectors + kMaxSlotSizeSectors - startSectors);
        visitSlots([&](Slot const& slot) {
            starts.take(slot.posSectors, 1);
            return true;
        });
        visitSlots([&](Slot const& slot) {
            if (slot.posSectors >= startSectors && slot.posSectors < endSectors)
                repair(slot, findRoom(slot, starts));
            return true;
        });
    }

    /// How much of the file a slot can have, in sectors.
    __int64 findRoom(Slot const& slot, SectorMap const& starts) const {
        __int64 const limit = std::min(slot.posSectors + kMaxSlotSizeSectors, m_dataEndSectors);
        __int64 const next = starts.findTaken(slot.posSectors + 1, limit);
        return (next == -1 ? limit : next) - slot.posSectors;
    }

    /// Where new grains will go.
    __int64 findDataEnd() {
        __int64 const fileSectors = m_stream.getLength() / kSectorSizeBytes;
        if (fileSectors < kTrailSectors)
            return fileSectors;
        unsigned char sector[kSectorSizeBytes];
        m_stream.seek((fileSectors - kTrailSectors) * kSectorSizeBytes);
        m_stream.read(sector, kSectorSizeBytes);
        bool const hasTrail = isVMDKMarker(sector, VMDKMarkerFooter, nullptr);
        return hasTrail ? fileSectors - kTrailSectors : fileSectors;
    }

    void repair(Slot const& slot, __int64 roomSectors) {
        assert(slot.posSectors > 0);
        if (slot.sizeSectors > 0 && slot.sizeSectors <= roomSectors)
            return;
        __int64 const recordSectors = readRecordSizeSectors(
            m_stream, m_header, slot.grainIndex + m_extent.getStartGrainIndex(), slot.posSectors);
        if (recordSectors < 1 || recordSectors > roomSectors)
            return;
        assert(recordSectors <= kMaxSlotSizeSectors);
        m_directory->setGrainInfo(slot.grainIndex, slot.posSectors,
                                  slot.sizeSectors == 0 ? recordSectors : roomSectors);
        ++m_repairCount;
    }

    yx::IIOStream& m_stream;
    DiskExtent const& m_extent;
    CVMDKSparseExtentHeader m_header;
    yx::P<CVMDKGrainTableCache> m_tables;
    yx::P<CVMDKGrainDirectory> m_directory;
    __int64 m_grainCount = 0;
    __int64 m_dataEndSectors = 0;
    __int64 m_repairCount = 0;
};

} // namespace

__int64 repairSlots(yx::IIOStream& stream, DiskExtent const& extent) {
    return SlotRepair(stream, extent).run();
}

} // namespace kelm::host

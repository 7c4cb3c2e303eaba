#include "host/slot_repair.h"

#include <algorithm>
#include <vector>

#include "host/record_size.h"
#include "kelm/format/constants.h"
#include "kelm/format/marker.h"
#include "kelm/metadata/grain_directory.h"

namespace kelm::host {

namespace {

class SlotRepair {
public:
    SlotRepair(yx::IIOStream& stream, ExtentPlace const& place)
        : m_stream(stream), m_place(place) {}

    __int64 run() {
        m_stream.seek(0);
        yx::CDataInStream in(&m_stream);
        m_header.load(in);
        m_directory = yx::makeObject<CVMDKGrainDirectory>(
            &m_stream, yx::IIOStream::ReadWrite,
            static_cast<__int64>(m_header.getGrainDirectoryOffsetSectors()),
            static_cast<__int64>(m_header.getRedundantGrainDirectoryOffsetSectors()),
            static_cast<__int64>(m_header.getCapacitySectors()),
            static_cast<__int64>(m_header.getGrainSizeSectors()),
            static_cast<int>(m_header.getGrainTableEntryCount()), true,
            yx::makeObject<CVMDKGrainTableCache>(CVMDKGrainTableCache::kNoLimit).get());
        collectSlots();
        for (std::size_t i = 0; i < m_slots.size(); ++i) {
            __int64 const limitSectors =
                i + 1 < m_slots.size() ? m_slots[i + 1].posSectors : findDataEnd();
            repair(m_slots[i], limitSectors - m_slots[i].posSectors);
        }
        if (m_repairCount > 0) {
            m_directory->flushChangesToStream();
            m_stream.flush();
        }
        return m_repairCount;
    }

private:
    struct Slot {
        unsigned int posSectors;
        unsigned int sizeSectors;
        __int64 grainIndex;
    };

    void collectSlots() {
        __int64 const grainCount = CVMDKGrainDirectory::calcExtentGrainCount(
            static_cast<__int64>(m_header.getCapacitySectors()),
            static_cast<__int64>(m_header.getGrainSizeSectors()));
        for (__int64 grain = 0; grain < grainCount; ++grain) {
            __int64 posSectors = 0;
            __int64 slotSizeSectors = 0;
            m_directory->getGrainInfo(grain, posSectors, slotSizeSectors);
            if (posSectors > 0)
                m_slots.push_back({static_cast<unsigned int>(posSectors),
                                   static_cast<unsigned int>(slotSizeSectors), grain});
        }
        auto const isBefore = [](Slot const& left, Slot const& right) {
            return left.posSectors < right.posSectors;
        };
        if (!std::is_sorted(m_slots.begin(), m_slots.end(), isBefore))
            std::sort(m_slots.begin(), m_slots.end(), isBefore);
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
        if (slot.sizeSectors > 0 && slot.sizeSectors <= roomSectors)
            return;
        __int64 const recordSectors = readRecordSize(slot);
        if (recordSectors < 1 || recordSectors > roomSectors)
            return;
        m_directory->setGrainInfo(slot.grainIndex, slot.posSectors,
                                  slot.sizeSectors == 0 ? recordSectors : roomSectors);
        ++m_repairCount;
    }

    /// In sectors; 0 if there is no record of that grain.
    __int64 readRecordSize(Slot const& slot) {
        unsigned char record[kGrainRecordHeaderSizeBytes];
        m_stream.seek(static_cast<__int64>(slot.posSectors) * kSectorSizeBytes);
        if (m_stream.readLax(record, kGrainRecordHeaderSizeBytes) < kGrainRecordHeaderSizeBytes)
            return 0;
        auto const diskGrainIndex =
            static_cast<unsigned long long>(slot.grainIndex + m_place.startGrainIndex);
        if (loadGrainRecordLBA(record) != diskGrainIndex * m_header.getGrainSizeSectors())
            return 0;
        return recordSizeSectors(m_header, loadGrainRecordCompressedSize(record));
    }

    yx::IIOStream& m_stream;
    ExtentPlace const& m_place;
    CVMDKSparseExtentHeader m_header;
    yx::P<CVMDKGrainDirectory> m_directory;
    std::vector<Slot> m_slots;
    __int64 m_repairCount = 0;
};

} // namespace

__int64 repairSlots(yx::IIOStream& stream, ExtentPlace const& place) {
    return SlotRepair(stream, place).run();
}

} // namespace kelm::host

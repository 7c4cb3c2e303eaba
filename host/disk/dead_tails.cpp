#include "host/disk/dead_tails.h"

#include <algorithm>
#include <cassert>

#include "host/disk/record_size.h"
#include "host/disk/table_comparison.h"
#include "host/disk/table_verification.h"
#include "host/disk/trail_repair.h"
#include "kelm/format/marker.h"
#include "kelm/kelm.h"
#include "yx/log.h"

namespace kelm::host {

namespace {

/// How many tables stay in memory: the run that is read in one go, and the next.
constexpr int kTablesInMemory = 64;

class DeadTail {
public:
    DeadTail(yx::IIOStream& stream, CancelFlag const* cancel) : m_stream(stream), m_cancel(cancel) {
        m_stream.seek(0);
        yx::CDataInStream in(&m_stream);
        m_header.load(in);
    }

    /// Returns how many bytes were taken away.
    __int64 drop() {
        __int64 const overheadSectors = static_cast<__int64>(m_header.getOverheadSectors());
        __int64 const tablesEndSectors = findTablesEnd(m_stream);
        if (tablesEndSectors == 0 || tablesEndSectors > overheadSectors)
            return 0;
        __int64 const endBytes = std::max(overheadSectors, findGrainsEnd()) * kSectorSizeBytes;
        __int64 const deadBytes = findContentEnd() - endBytes;
        if (deadBytes <= 0)
            return 0;
        // A power cut from here on leaves a file without a trail at worst, as the kill did.
        m_stream.setLength(endBytes);
        m_stream.flush();
        repairTrail(m_stream);
        return deadBytes;
    }

private:
    /// In sectors; 0 if there is none.
    __int64 findGrainsEnd() {
        yx::P<CVMDKGrainTableCache> const cache =
            yx::makeObject<CVMDKGrainTableCache>(kTablesInMemory);
        CVMDKGrainDirectory directory(&m_stream, yx::IIOStream::ReadOnly, m_header, cache.get());
        __int64 const grainCount = CVMDKGrainDirectory::calcExtentGrainCount(
            static_cast<__int64>(m_header.getCapacitySectors()),
            static_cast<__int64>(m_header.getGrainSizeSectors()));
        __int64 endSectors = 0;
        __int64 lastPosSectors = 0;
        for (__int64 grain = 0; grain < grainCount; ++grain) {
            if (m_cancel && grain % kGrainTableEntryCount == 0)
                m_cancel->check();
            __int64 posSectors = 0;
            __int64 slotSectors = 0;
            directory.getGrainInfo(grain, posSectors, slotSectors);
            if (posSectors > 0)
                endSectors = std::max(endSectors, posSectors + slotSectors);
            lastPosSectors = std::max(lastPosSectors, posSectors);
        }
        if (m_header.isCompressed() && lastPosSectors > 0)
            endSectors = std::max(endSectors, findRecordEnd(lastPosSectors));
        return endSectors;
    }

    /// In sectors. A power cut can leave a new place with the slot of the old one, which may be
    /// smaller than the record.
    __int64 findRecordEnd(__int64 posSectors) {
        unsigned char record[kGrainRecordHeaderSizeBytes];
        m_stream.seek(posSectors * kSectorSizeBytes);
        m_stream.read(record, kGrainRecordHeaderSizeBytes);
        return posSectors + recordSizeSectors(m_header, loadGrainRecordCompressedSize(record));
    }

    /// Where the trail begins, or the file ends without one, in bytes.
    __int64 findContentEnd() {
        __int64 const lengthBytes = m_stream.getLength();
        __int64 const trailBytes = __int64{kTrailSectors} * kSectorSizeBytes;
        if (!m_header.isCompressed() || lengthBytes < trailBytes)
            return lengthBytes;
        unsigned char sector[kSectorSizeBytes];
        m_stream.seek(lengthBytes - trailBytes);
        m_stream.read(sector, kSectorSizeBytes);
        return isVMDKMarker(sector, VMDKMarkerFooter, nullptr) ? lengthBytes - trailBytes
                                                               : lengthBytes;
    }

    yx::IIOStream& m_stream;
    CancelFlag const* m_cancel;
    CVMDKSparseExtentHeader m_header;
};

bool dropIn(yx::IFileSystem* files, yx::CURI const& file, CancelFlag const* cancel) {
    yx::P<yx::IIOStream> const stream = openVMDKFileStream(files, file, yx::IIOStream::ReadWrite);
    bool const hasNewTables = renewRedundantTables(*stream, cancel) > 0;
    __int64 const deadBytes = DeadTail(*stream, cancel).drop();
    if (deadBytes > 0) {
        yx::logWarning("Removed " + yx::toString(deadBytes) +
                       " bytes that a program which was killed had left in the file '" +
                       file.toString(true) + "'.");
    }
    stream->close();
    assert(deadBytes >= 0);
    return hasNewTables || deadBytes > 0;
}

} // namespace

bool dropDeadTails(SafeDisk& disk, CancelFlag const* cancel) {
    verifyTables(disk, cancel);
    yx::IFileSystem* const files = disk.getFileSystem();
    bool isChanged = false;
    for (DiskExtent const& extent : disk.listExtents()) {
        if (files->fileExists(extent.uri))
            isChanged = dropIn(files, extent.uri, cancel) || isChanged;
    }
    return isChanged;
}

} // namespace kelm::host

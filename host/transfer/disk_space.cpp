#include "host/transfer/disk_space.h"

#include <algorithm>
#include <cassert>

#include "kelm/format/constants.h"
#include "kelm/format/sparse_extent_header.h"
#include "kelm/metadata/grain_directory.h"

namespace kelm::host {

namespace {

/// Enough for the run of tables that is read in one go.
constexpr int kCachedTables = 64;

/// Half of what 64 bits can count in bytes.
constexpr unsigned long long kMaxCapacitySectors = 1ULL << 53;

class SpaceGatherer {
public:
    SpaceGatherer(SafeDisk& disk, WorkOptions const& options)
        : m_disk(disk), m_cancel(options.cancel), m_throttle(options.progress) {}

    CVMDKSpaceInfo run() {
        for (DiskExtent const& extent : m_disk.listExtents()) {
            bool const isStillToBeMade = m_disk.createsExtentFilesOnDemand() &&
                                         !m_disk.getFileSystem()->fileExists(extent.uri);
            if (!isStillToBeMade)
                addExtent(extent);
        }
        m_throttle.report(m_disk.getSizeBytes(), m_disk.getSizeBytes());
        return m_total;
    }

private:
    void addExtent(DiskExtent const& extent) {
        yx::P<yx::IIOStream> const stream =
            openVMDKFileStream(m_disk.getFileSystem(), extent.uri, yx::IIOStream::ReadOnly);
        CVMDKSparseExtentHeader header;
        yx::CDataInStream in(stream.get());
        header.load(in);
        verifySizes(extent.uri, header);
        CVMDKGrainTable::Usage const usage = calcUsage(*stream, header, extent.startBytes);
        CVMDKSpaceInfo space;
        space.setPayloadSize(usage.grains * toBytes(header.getGrainSizeSectors()));
        space.setPayloadSizeInFile(header.isCompressed() ? usage.slotSectors * kSectorSizeBytes
                                                         : space.getPayloadSize());
        space.setHeaderSize(toBytes(header.getOverheadSectors()));
        space.setDeadSpaceSize(std::max<__int64>(0, stream->getLength() - space.getHeaderSize() -
                                                        space.getPayloadSizeInFile()));
        assert(space.getPayloadSize() >= 0 && space.getPayloadSizeInFile() >= 0);
        assert(space.getHeaderSize() >= 0);
        m_total.addSpaceInfo(space);
    }

    /// So that no sum overflows 64 bits; opening the disk has checked its first extent only.
    static void verifySizes(yx::CURI const& uri, CVMDKSparseExtentHeader const& header) {
        auto const refuse = [&uri](char const* field, unsigned long long value) {
            throw yx::CIOError(yx::CIOError::CorruptData,
                               "Invalid " + yx::String(field) +
                                   " in VMDK sparse header: " + yx::toString(value),
                               yx::CProps().add("uri", uri.toString(true)), nullptr);
        };
        if (header.getCapacitySectors() > kMaxCapacitySectors)
            refuse("capacity", header.getCapacitySectors());
        if (header.getGrainSizeSectors() > CVMDKDataPreparer::kMaxGrainSizeSectors)
            refuse("grain size", header.getGrainSizeSectors());
    }

    CVMDKGrainTable::Usage calcUsage(yx::IIOStream& stream, CVMDKSparseExtentHeader const& header,
                                     __int64 startBytes) {
        auto const entries = static_cast<int>(header.getGrainTableEntryCount());
        yx::P<CVMDKGrainTableCache> const cache =
            yx::makeObject<CVMDKGrainTableCache>(kCachedTables);
        yx::P<CVMDKGrainDirectory> const directory = yx::makeObject<CVMDKGrainDirectory>(
            &stream, yx::IIOStream::ReadOnly, header, cache.get());
        assert(entries > 0);
        __int64 const grainCount = CVMDKGrainDirectory::calcExtentGrainCount(
            static_cast<__int64>(header.getCapacitySectors()),
            static_cast<__int64>(header.getGrainSizeSectors()));
        CVMDKGrainTable::Usage usage;
        for (__int64 first = 0; first < grainCount; first += entries) {
            if (m_cancel)
                m_cancel->check();
            m_throttle.report(startBytes + first * toBytes(header.getGrainSizeSectors()),
                              m_disk.getSizeBytes());
            int const count = static_cast<int>(std::min<__int64>(entries, grainCount - first));
            assert(count > 0);
            usage += directory->getGrainTable(first / entries)->calcUsage(count);
        }
        return usage;
    }

    /// A number from the file that nothing has checked yet is limited to what a file can have.
    static __int64 toBytes(unsigned long long sectors) {
        return static_cast<__int64>(std::min(sectors, kMaxCapacitySectors)) * kSectorSizeBytes;
    }

    SafeDisk& m_disk;
    CancelFlag const* m_cancel;
    ProgressThrottle m_throttle;
    CVMDKSpaceInfo m_total;
};

} // namespace

CVMDKSpaceInfo gatherSpace(SafeDisk& disk, WorkOptions const& options) {
    return SpaceGatherer(disk, options).run();
}

} // namespace kelm::host

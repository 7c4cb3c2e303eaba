#include "host/backups/extent_compaction.h"

#include <algorithm>
#include <cassert>
#include <cstddef>
#include <limits>
#include <optional>

#include "host/disk/record_size.h"
#include "host/disk/stored_grains.h"
#include "host/disk/table_comparison.h"
#include "host/disk/trail_repair.h"
#include "kelm/format/internal/little_endian.h"
#include "kelm/kelm.h"

namespace kelm::host {

namespace {

/// The run of tables that is read in one go, and the next.
constexpr int kCompactionTablesInMemory = 64;

/// Changed tables are written before those of the next run are read.
constexpr __int64 kCompactionFlushGrains = __int64{32} * kGrainTableEntryCount;

constexpr __int64 kMetadataPieceBytes = __int64{1} << 20;

/// Tables keep the size of a slot in 16 bits.
constexpr __int64 kMaxSlotEntry = std::numeric_limits<unsigned short>::max();

struct GrainSlot {
    __int64 posSectors = 0;
    __int64 sizeSectors = 0;
};

/// The header and the tables of one of the two files.
class ExtentTables {
public:
    ExtentTables(yx::IIOStream& stream, yx::IIOStream::Access access) : m_stream(stream) {
        stream.seek(0);
        yx::CDataInStream in(&stream);
        header.load(in);
        m_directory = yx::makeObject<CVMDKGrainDirectory>(
            &stream, access, header,
            yx::makeObject<CVMDKGrainTableCache>(kCompactionTablesInMemory).get());
    }

    GrainSlot get(__int64 grain) {
        GrainSlot slot;
        m_directory->getGrainInfo(grain, slot.posSectors, slot.sizeSectors);
        return slot;
    }

    void set(__int64 grain, GrainSlot const& slot) {
        m_directory->setGrainInfo(grain, slot.posSectors, slot.sizeSectors);
    }

    void flush() { m_directory->flushChangesToStream(); }

    __int64 getGrainSizeSectors() const {
        return static_cast<__int64>(header.getGrainSizeSectors());
    }
    int getGrainSizeBytes() const {
        return static_cast<int>(getGrainSizeSectors() * kSectorSizeBytes);
    }
    __int64 getOverheadSectors() const { return static_cast<__int64>(header.getOverheadSectors()); }

    __int64 getGrainCount() const {
        return CVMDKGrainDirectory::calcExtentGrainCount(
            static_cast<__int64>(header.getCapacitySectors()), getGrainSizeSectors());
    }

    /// Those behind the last grain included.
    __int64 getEntryCount() const {
        return getVMDKTableCount(getGrainCount()) * kGrainTableEntryCount;
    }

    bool hasSlotSizes() const { return m_directory->getHaveSlotSizeInfo(); }

    /// Where the first slot of a new file can be.
    __int64 getFirstSlotSector() const {
        return header.isCompressed()
                   ? getOverheadSectors()
                   : roundUpToMultiple(getOverheadSectors(), getGrainSizeSectors());
    }

    /// What a grain takes in a new file.
    __int64 calcNewSizeSectors(GrainSlot const& slot) {
        if (!header.isCompressed())
            return getGrainSizeSectors();
        unsigned char record[kGrainRecordHeaderSizeBytes];
        m_stream.seek(slot.posSectors * kSectorSizeBytes);
        m_stream.read(record, kGrainRecordHeaderSizeBytes);
        __int64 const compressedBytes = loadGrainRecordCompressedSize(record);
        __int64 const neededSectors = recordSizeSectors(header, compressedBytes);
        if (!header.isEncrypted())
            return neededSectors;
        // Enciphered is the record with its padding. Only what the data take is needed to read it,
        // and that is all where the slot has no more.
        __int64 const paddedBytes =
            roundUpToSectors(kGrainRecordHeaderSizeBytes + compressedBytes) * kSectorSizeBytes;
        __int64 const wholeSectors = roundUpToSectors(
            kGrainRecordHeaderSizeBytes +
            roundUpToMultiple(paddedBytes - kGrainRecordHeaderSizeBytes, kCipherBlockSizeBytes));
        bool const isThere =
            wholeSectors <= slot.sizeSectors &&
            wholeSectors <= m_stream.getLength() / kSectorSizeBytes - slot.posSectors;
        return isThere ? wholeSectors : neededSectors;
    }

    void read(GrainSlot const& slot, __int64 sizeSectors, yx::TBuffer<unsigned char>& target) {
        target.setUsed(static_cast<int>(sizeSectors * kSectorSizeBytes));
        m_stream.seek(slot.posSectors * kSectorSizeBytes);
        m_stream.read(target.getData(), target.getUsed());
    }

    CVMDKSparseExtentHeader header;

private:
    yx::IIOStream& m_stream;
    yx::P<CVMDKGrainDirectory> m_directory;
};

/// Whether the metadata of an extent can be copied as a whole.
class MetadataPlaces {
public:
    MetadataPlaces(yx::IIOStream& stream, ExtentTables& tables)
        : m_stream(stream),
          m_tables(tables),
          m_overheadSectors(tables.getOverheadSectors()),
          m_tableCount(getVMDKTableCount(tables.getGrainCount())) {}

    bool areBeforeGrains() {
        CVMDKSparseExtentHeader const& header = m_tables.header;
        bool const hasRedundant = header.getRedundantGrainDirectoryOffsetSectors() > 0;
        return isBefore(0, 1) &&
               isBefore(header.getDescriptorOffsetSectors(), header.getDescriptorSizeSectors()) &&
               areTablesBefore(header.getGrainDirectoryOffsetSectors(), kGrainTableSizeSectors) &&
               (!hasRedundant || areTablesBefore(header.getRedundantGrainDirectoryOffsetSectors(),
                                                 kGrainTableSizeSectors)) &&
               areSlotSizesBefore();
    }

private:
    bool isBefore(unsigned long long sector, unsigned long long sizeSectors) const {
        auto const overhead = static_cast<unsigned long long>(m_overheadSectors);
        return sector <= overhead && sizeSectors <= overhead - sector;
    }

    /// A directory and the tables that it names. Notes where the last of these ends.
    bool areTablesBefore(unsigned long long directorySector, int tableSizeSectors) {
        if (directorySector == 0 ||
            !isBefore(directorySector,
                      static_cast<unsigned long long>(getVMDKDirectorySizeSectors(m_tableCount))))
            return false;
        yx::TBuffer<unsigned char> entries(
            static_cast<int>(m_tableCount * kDirectoryEntrySizeBytes), -1);
        m_stream.seek(static_cast<__int64>(directorySector) * kSectorSizeBytes);
        m_stream.read(entries.getData(), entries.getUsed());
        for (__int64 table = 0; table < m_tableCount; ++table) {
            auto const sector = loadLittleEndian<unsigned int>(entries.getData() +
                                                               table * kDirectoryEntrySizeBytes);
            if (sector == 0 || !isBefore(sector, static_cast<unsigned int>(tableSizeSectors)))
                return false;
            if (table == m_tableCount - 1)
                m_lastTableEnd =
                    std::max(m_lastTableEnd, sector + static_cast<unsigned int>(tableSizeSectors));
        }
        return true;
    }

    /// They follow behind a marker upon the last of all tables.
    bool areSlotSizesBefore() {
        if (!m_tables.hasSlotSizes())
            return true;
        // What follows upon the tables of a plain extent is a grain that looks like a marker.
        return m_tables.header.isCompressed() &&
               (m_tableCount == 0 ||
                areTablesBefore(static_cast<unsigned long long>(m_lastTableEnd) + 1,
                                kSlotSizeTableSizeSectors));
    }

    yx::IIOStream& m_stream;
    ExtentTables& m_tables;
    __int64 m_overheadSectors;
    __int64 m_tableCount;
    unsigned int m_lastTableEnd = 0;
};

class CompactionPlanning {
public:
    CompactionPlanning(yx::IIOStream& stream, ExtentToCompact const& extent,
                       CompactionProgress const& progress)
        : m_stream(stream),
          m_extent(extent),
          m_progress(progress),
          m_tables(stream, yx::IIOStream::ReadOnly),
          m_grains(stream, m_tables.header, extent.startGrainIndex, extent.key) {}

    CompactionPlan run() {
        m_plan.bytesBefore = m_stream.getLength();
        m_plan.bytesAfter = m_plan.bytesBefore;
        if (m_tables.header.getGrainTableEntryCount() != kGrainTableEntryCount) {
            m_plan.obstacle = "its grain tables are of another size";
        } else if (!MetadataPlaces(m_stream, m_tables).areBeforeGrains()) {
            m_plan.obstacle = "its tables do not all lie before its grains";
        } else {
            verifyGrainTables();
            addUpGrains();
        }
        return std::move(m_plan);
    }

private:
    void verifyGrainTables() {
        compareRedundantTables(m_stream, m_extent.startGrainIndex, nullptr,
                               [this](DamagedTable const& table) {
                                   throwDamage("Grain table ", "table", table.tableIndex,
                                               " " + table.text + ", so the file");
                               });
    }

    void addUpGrains() {
        __int64 const grainCount = m_tables.getGrainCount();
        m_plan.droppedGrains.resize(static_cast<std::size_t>(grainCount));
        __int64 endSectors = m_tables.getFirstSlotSector();
        bool holdsGrains = false;
        __int64 seenBytes = 0;
        for (__int64 grain = 0; grain < grainCount; ++grain) {
            GrainSlot const slot = m_tables.get(grain);
            if (slot.posSectors > 0) {
                seenBytes += slot.sizeSectors * kSectorSizeBytes;
                if (mustStay(grain, slot)) {
                    endSectors += m_tables.calcNewSizeSectors(slot);
                    holdsGrains = true;
                } else {
                    m_plan.droppedGrains[static_cast<std::size_t>(grain)] = true;
                }
            }
            // Slots that overlap can be more than the file.
            m_progress(std::min(seenBytes, m_plan.bytesBefore));
        }
        if (!holdsGrains)
            endSectors = m_tables.getOverheadSectors();
        if (m_tables.header.isCompressed())
            endSectors += kTrailSectors;
        m_plan.bytesAfter = endSectors * kSectorSizeBytes;
    }

    /// Reads the grain, too.
    bool mustStay(__int64 grain, GrainSlot const& slot) {
        if (slot.posSectors < m_tables.getOverheadSectors())
            throwDamagedGrain(grain, "lies in the metadata");
        if (m_tables.header.isCompressed() || m_tables.header.isEncrypted()) {
            ReadGrain const read = m_grains.read(grain, slot.posSectors, m_buffer);
            if (!read.lost.empty())
                throwDamagedGrain(grain, read.reason);
        } else {
            if (slot.posSectors + m_tables.getGrainSizeSectors() >
                m_stream.getLength() / kSectorSizeBytes)
                throwDamagedGrain(grain, "lies outside the file");
            m_tables.read(slot, m_tables.getGrainSizeSectors(), m_buffer);
        }
        return !m_extent.mayDropZeros ||
               !yx::isAllZero(m_buffer.getData(), static_cast<std::size_t>(m_buffer.getUsed())) ||
               !m_extent.mayDropZeros(grain);
    }

    [[noreturn]] void throwDamagedGrain(__int64 grain, std::string const& reason) {
        throwDamage("Grain ", "grain", grain, " of the extent file " + reason + ", so the file");
    }

    [[noreturn]] void throwDamage(char const* thing, char const* key, __int64 number,
                                  std::string const& text) {
        throw yx::CIOError(yx::CIOError::CorruptData,
                           thing + yx::toString(number) + yx::String::fromUTF8(text) +
                               " cannot be compacted.",
                           yx::CProps()
                               .add("uri", m_stream.getURI().toString(true))
                               .add(key, yx::toString(number)),
                           nullptr);
    }

    yx::IIOStream& m_stream;
    ExtentToCompact const& m_extent;
    CompactionProgress const& m_progress;
    ExtentTables m_tables;
    StoredGrains m_grains;
    yx::TBuffer<unsigned char> m_buffer;
    CompactionPlan m_plan;
};

/// Goes through the grains that stay, with the slots that they have and get.
class GrainMoves {
public:
    GrainMoves(ExtentTables& source, CompactionPlan const& plan)
        : m_source(source), m_plan(plan), m_endSectors(source.getFirstSlotSector()) {}

    /// Nothing for a grain that has no place in the new file.
    std::optional<GrainSlot> place(__int64 grain, GrainSlot const& slot) {
        if (slot.posSectors == 0 || grain >= m_source.getGrainCount() ||
            m_plan.droppedGrains[static_cast<std::size_t>(grain)])
            return std::nullopt;
        GrainSlot const placed{m_endSectors, m_source.calcNewSizeSectors(slot)};
        m_endSectors += placed.sizeSectors;
        return placed;
    }

    __int64 getEndBytes() const { return m_endSectors * kSectorSizeBytes; }

private:
    ExtentTables& m_source;
    CompactionPlan const& m_plan;
    __int64 m_endSectors;
};

void copyMetadata(yx::IIOStream& source, __int64 bytes, yx::IIOStream& target) {
    yx::TBuffer<unsigned char> piece(static_cast<int>(std::min(bytes, kMetadataPieceBytes)), -1);
    for (__int64 done = 0; done < bytes; done += piece.getUsed()) {
        piece.setUsed(static_cast<int>(std::min(bytes - done, kMetadataPieceBytes)));
        source.seek(done);
        source.read(piece.getData(), piece.getUsed());
        target.seek(done);
        target.write(piece.getData(), piece.getUsed(), nullptr);
    }
}

/// What an entry without a place is to have.
GrainSlot emptySlotOf(ExtentTables const& tables) {
    return {0, tables.header.isCompressed() ? 1 : tables.getGrainSizeSectors()};
}

void moveGrains(ExtentTables& source, CompactionPlan const& plan, yx::IIOStream& target,
                CompactionProgress const& progress) {
    ExtentTables tables(target, yx::IIOStream::ReadWrite);
    GrainMoves moves(source, plan);
    yx::TBuffer<unsigned char> stored;
    for (__int64 grain = 0; grain < source.getEntryCount(); ++grain) {
        GrainSlot const slot = source.get(grain);
        if (std::optional<GrainSlot> const placed = moves.place(grain, slot)) {
            source.read(slot, placed->sizeSectors, stored);
            target.seek(placed->posSectors * kSectorSizeBytes);
            target.write(stored.getData(), stored.getUsed(), nullptr);
            tables.set(grain, {placed->posSectors, std::min(placed->sizeSectors, kMaxSlotEntry)});
        } else if (slot.posSectors > 0) {
            tables.set(grain, emptySlotOf(source));
        }
        if ((grain + 1) % kCompactionFlushGrains == 0)
            tables.flush();
        progress(std::min(moves.getEndBytes(), plan.bytesAfter));
    }
    tables.flush();
}

/// The redundant tables of an extent, if it has them.
class RedundantTables {
public:
    RedundantTables(yx::IIOStream& stream, CVMDKSparseExtentHeader const& header) {
        auto const directorySector =
            static_cast<__int64>(header.getRedundantGrainDirectoryOffsetSectors());
        if (directorySector == 0)
            return;
        // Slot sizes have no copy, so that these tables are like those of a plain extent.
        m_directory = yx::makeObject<CVMDKGrainDirectory>(
            &stream, yx::IIOStream::ReadOnly, directorySector, 0,
            static_cast<__int64>(header.getCapacitySectors()),
            static_cast<__int64>(header.getGrainSizeSectors()),
            static_cast<int>(header.getGrainTableEntryCount()), false,
            yx::makeObject<CVMDKGrainTableCache>(kCompactionTablesInMemory).get());
    }

    /// Whether they name this place for a grain.
    bool name(__int64 grain, __int64 posSectors) {
        if (!m_directory)
            return true;
        GrainSlot slot;
        m_directory->getGrainInfo(grain, slot.posSectors, slot.sizeSectors);
        return slot.posSectors == posSectors;
    }

private:
    yx::P<CVMDKGrainDirectory> m_directory;
};

class CompactionComparison {
public:
    CompactionComparison(yx::IIOStream& source, CompactionPlan const& plan, yx::IIOStream& target)
        : m_sourceStream(source),
          m_plan(plan),
          m_targetStream(target),
          m_source(source, yx::IIOStream::ReadOnly) {}

    void run(CompactionProgress const& progress) {
        verify(m_targetStream.getLength() == m_plan.bytesAfter);
        compareBeforeTables();
        ExtentTables target(m_targetStream, yx::IIOStream::ReadOnly);
        RedundantTables copies(m_targetStream, target.header);
        verify(MetadataPlaces(m_targetStream, target).areBeforeGrains());
        GrainMoves moves(m_source, m_plan);
        for (__int64 grain = 0; grain < m_source.getEntryCount(); ++grain) {
            GrainSlot const slot = m_source.get(grain);
            GrainSlot const placed = target.get(grain);
            verify(copies.name(grain, placed.posSectors));
            compareGrain(slot, moves.place(grain, slot), placed, target);
            progress(std::min(moves.getEndBytes(), m_plan.bytesAfter));
        }
        if (m_source.header.isCompressed())
            compareTrail();
    }

private:
    void verify(bool isAsItShouldBe) const {
        if (isAsItShouldBe)
            return;
        throw yx::CIOError(yx::CIOError::IOFailure, "The compacted file differs from the old one.",
                           yx::CProps().add("uri", m_targetStream.getURI().toString(true)),
                           nullptr);
    }

    void compareBytes(__int64 sourceBytes, __int64 targetBytes, int bytes) {
        m_sourceStream.seek(sourceBytes);
        m_sourceBytes.setUsed(bytes);
        m_sourceStream.read(m_sourceBytes.getData(), bytes);
        m_targetStream.seek(targetBytes);
        m_targetBytes.setUsed(bytes);
        m_targetStream.read(m_targetBytes.getData(), bytes);
        verify(std::equal(m_sourceBytes.getData(), m_sourceBytes.getData() + bytes,
                          m_targetBytes.getData()));
    }

    /// Header, descriptor and directories; the tables are compared by what they say.
    void compareBeforeTables() {
        CVMDKSparseExtentHeader const& header = m_source.header;
        auto const directorySectors = static_cast<unsigned long long>(
            getVMDKDirectorySizeSectors(getVMDKTableCount(m_source.getGrainCount())));
        compareBytes(0, 0, kSectorSizeBytes);
        compareSectors(header.getDescriptorOffsetSectors(), header.getDescriptorSizeSectors());
        compareSectors(header.getGrainDirectoryOffsetSectors(), directorySectors);
        compareSectors(header.getRedundantGrainDirectoryOffsetSectors(), directorySectors);
    }

    /// Of metadata that both files have at the same place, if they have them.
    void compareSectors(unsigned long long sector, unsigned long long sectors) {
        if (sector == 0)
            return;
        __int64 const endBytes = static_cast<__int64>(sector + sectors) * kSectorSizeBytes;
        for (__int64 at = static_cast<__int64>(sector) * kSectorSizeBytes; at < endBytes;
             at += kMetadataPieceBytes)
            compareBytes(at, at, static_cast<int>(std::min(endBytes - at, kMetadataPieceBytes)));
    }

    void compareGrain(GrainSlot const& slot, std::optional<GrainSlot> const& expected,
                      GrainSlot const& placed, ExtentTables const& target) {
        if (!expected) {
            verify(placed.posSectors == 0);
            return;
        }
        verify(placed.posSectors == expected->posSectors);
        verify(placed.sizeSectors == (target.hasSlotSizes()
                                          ? std::min(expected->sizeSectors, kMaxSlotEntry)
                                          : target.getGrainSizeSectors()));
        compareBytes(slot.posSectors * kSectorSizeBytes, placed.posSectors * kSectorSizeBytes,
                     static_cast<int>(expected->sizeSectors * kSectorSizeBytes));
    }

    void compareTrail() {
        unsigned char sectors[kTrailSectors * kSectorSizeBytes];
        m_targetStream.seek(m_plan.bytesAfter - static_cast<__int64>(sizeof sectors));
        m_targetStream.read(sectors, sizeof sectors);
        unsigned char header[kSectorSizeBytes];
        m_targetStream.seek(0);
        m_targetStream.read(header, kSectorSizeBytes);
        verify(isVMDKMarker(sectors, VMDKMarkerFooter, nullptr) &&
               std::equal(header, header + kSectorSizeBytes, sectors + kSectorSizeBytes) &&
               isVMDKMarker(sectors + std::ptrdiff_t{2} * kSectorSizeBytes, VMDKMarkerEndOfStream,
                            nullptr));
    }

    yx::IIOStream& m_sourceStream;
    CompactionPlan const& m_plan;
    yx::IIOStream& m_targetStream;
    ExtentTables m_source;
    yx::TBuffer<unsigned char> m_sourceBytes;
    yx::TBuffer<unsigned char> m_targetBytes;
};

} // namespace

CompactionPlan planCompaction(yx::IIOStream& source, ExtentToCompact const& extent,
                              CompactionProgress const& progress) {
    return CompactionPlanning(source, extent, progress).run();
}

void writeCompacted(yx::IIOStream& source, CompactionPlan const& plan, yx::IIOStream& target,
                    CompactionProgress const& progress) {
    assert(plan.obstacle.empty() && target.getLength() == 0);
    ExtentTables tables(source, yx::IIOStream::ReadOnly);
    copyMetadata(source, tables.getOverheadSectors() * kSectorSizeBytes, target);
    moveGrains(tables, plan, target, progress);
    // A copy that lagged behind its table in the old file.
    renewRedundantTables(target, nullptr);
    repairTrail(target);
    assert(target.getLength() == plan.bytesAfter);
    target.flush();
}

void verifyCompacted(yx::IIOStream& source, CompactionPlan const& plan, yx::IIOStream& target,
                     CompactionProgress const& progress) {
    CompactionComparison(source, plan, target).run(progress);
}

} // namespace kelm::host

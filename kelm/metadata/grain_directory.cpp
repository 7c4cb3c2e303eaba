#include "kelm/metadata/grain_directory.h"

#include <algorithm>
#include <cassert>
#include <limits>

#include "kelm/format/constants.h"
#include "kelm/format/marker.h"
#include "kelm/metadata/internal/table_io.h"
#include "yx/error.h"
#include "yx/log.h"

namespace kelm {

namespace {

/// Tables are read in aligned runs of this many.
constexpr __int64 kRunTables = 32;

constexpr int kGrainTableEntrySizeBytes = kGrainTableSizeBytes / kGrainTableEntryCount;

constexpr char kGrainSizeField[] = "grain size";
constexpr char kTableSizeField[] = "grain table size";
constexpr char kCapacityField[] = "capacity";

/// (value + divisor - 1) / divisor, also where that sum would leave 64 bits.
__int64 divideRoundingUp(__int64 value, __int64 divisor) {
    return value > 0 ? (value - 1) / divisor + 1 : (value + divisor - 1) / divisor;
}

void verifyAtLeastOne(__int64 value, char const* function, char const* field) {
    if (value < 1) {
        throw yx::CInvalidArgError(
            function, yx::String("Invalid ") + field + ": " + yx::toString(value), yx::CProps());
    }
}

/// 0 for a directory that the extent does not have.
__int64 getEntry(yx::TBuffer<unsigned int> const& directory, int index) {
    return directory.getUsed() > 0 ? directory.getData()[index] : 0;
}

} // namespace

__int64 CVMDKGrainDirectory::calcExtentGrainCount(__int64 capacitySectors,
                                                  __int64 grainSizeSectors) {
    verifyAtLeastOne(grainSizeSectors, "CVMDKGrainDirectory::calcExtentGrainCount",
                     kGrainSizeField);
    return divideRoundingUp(capacitySectors, grainSizeSectors);
}

__int64 CVMDKGrainDirectory::calcExtentGrainTableCount(__int64 capacitySectors,
                                                       __int64 grainSizeSectors,
                                                       int entriesPerTable) {
    verifyAtLeastOne(entriesPerTable, "CVMDKGrainDirectory::calcExtentGrainTableCount",
                     kTableSizeField);
    return divideRoundingUp(calcExtentGrainCount(capacitySectors, grainSizeSectors),
                            entriesPerTable);
}

CVMDKGrainDirectory::CVMDKGrainDirectory(yx::IIOStream* stream, yx::IIOStream::Access access,
                                         __int64 directoryPosSectors,
                                         __int64 redundantDirectoryPosSectors,
                                         __int64 capacitySectors, __int64 grainSizeSectors,
                                         int entriesPerTable, bool compressed,
                                         CVMDKGrainTableCache* grainTableCache)
    : m_stream(stream),
      m_access(access),
      m_grainTableCache(grainTableCache),
      m_directoryPosSectors(directoryPosSectors),
      m_redundantDirectoryPosSectors(redundantDirectoryPosSectors),
      m_grainSizeSectors(grainSizeSectors),
      m_entriesPerTable(entriesPerTable),
      m_compressed(compressed),
      m_capacitySectors(capacitySectors) {
    // The cache knows directories by address. An earlier directory of this address whose last flush
    // failed has left its tables there, and they belong to another file.
    m_grainTableCache->removeCachedTablesFromDirectory(this);
    verifySizes();
    m_grainCount = calcExtentGrainCount(m_capacitySectors, m_grainSizeSectors);
    m_tableCount = divideRoundingUp(m_grainCount, m_entriesPerTable);
    verifyTablesFitStream();
    readDirectories();
    findSlotDirectory();
    readSlotDirectory();
    assert(m_directory.getUsed() == m_tableCount);
    assert(m_redundantDirectory.getUsed() == 0 || m_redundantDirectory.getUsed() == m_tableCount);
    assert(m_slotDirectory.getUsed() == 0 || m_slotDirectory.getUsed() == m_tableCount);
    assert(!m_compressed || m_slotDirectoryPosSectors > 0);
}

CVMDKGrainDirectory::CVMDKGrainDirectory(yx::IIOStream* stream, yx::IIOStream::Access access,
                                         CVMDKSparseExtentHeader const& header,
                                         CVMDKGrainTableCache* grainTableCache)
    : CVMDKGrainDirectory(stream, access,
                          static_cast<__int64>(header.getGrainDirectoryOffsetSectors()),
                          static_cast<__int64>(header.getRedundantGrainDirectoryOffsetSectors()),
                          static_cast<__int64>(header.getCapacitySectors()),
                          static_cast<__int64>(header.getGrainSizeSectors()),
                          static_cast<int>(header.getGrainTableEntryCount()), header.isCompressed(),
                          grainTableCache) {}

CVMDKGrainDirectory::~CVMDKGrainDirectory() {
    try {
        m_grainTableCache->flushCachedTablesFromDirectoryToStream(this);
        m_grainTableCache->removeCachedTablesFromDirectory(this);
    } catch (std::exception& error) {
        yx::onExceptionInDestructorIgnored("kelm::CVMDKGrainDirectory", error, true);
    }
}

yx::P<CVMDKGrainTable> CVMDKGrainDirectory::getGrainTable(__int64 tableIndex) {
    if (tableIndex < 0 || tableIndex >= m_tableCount) {
        // Deliberately in lower case, unlike the table's message: logs are searched for both.
        throw yx::CInvalidArgError("CVMDKGrainDirectory::getGrainTable",
                                   "invalid table index: " + yx::toString(tableIndex),
                                   uriPropsOf(*m_stream));
    }
    if (yx::P<CVMDKGrainTable> table = m_grainTableCache->getCachedTable(this, tableIndex))
        return table;
    return loadRun(tableIndex);
}

yx::P<CVMDKGrainTable> CVMDKGrainDirectory::loadRun(__int64 tableIndex) {
    __int64 const first = tableIndex / kRunTables * kRunTables;
    __int64 const end = std::min(first + kRunTables, m_tableCount);
    yx::P<CVMDKGrainTable> result;
    for (__int64 index = first; index < end; ++index) {
        try {
            // Deliberately without a look at what the cache holds: a neighbour that is cached is
            // read again and replaced, and what the old one still had to write is written only
            // then. The bytes in the file under a small cache depend on this order.
            yx::P<CVMDKGrainTable> const table = loadTable(static_cast<int>(index));
            m_grainTableCache->setCachedTable(this, index, table.get());
            if (index == tableIndex)
                result = table;
        } catch (...) {
            uncacheTables(first, index);
            throw;
        }
    }
    // Cannot be, since the index lies within its run.
    if (!result) {
        throw yx::CError("Internal error: CVMDKGrainDirectory::getGrainTable updated the cache, "
                         "but did not encounter the requested table (requested index: " +
                             yx::toString(tableIndex) + ")",
                         "", -1, yx::CProps(), nullptr);
    }
    return result;
}

/// Part of a run must not stay in the cache. Whoever changed one of its tables would lose the
/// change when another table of the run is asked for: the run is then read again, and replaces all
/// of it.
void CVMDKGrainDirectory::uncacheTables(__int64 first, __int64 end) {
    for (__int64 index = first; index < end; ++index)
        m_grainTableCache->removeCachedTable(this, index);
}

yx::P<CVMDKGrainTable> CVMDKGrainDirectory::loadTable(int tableIndex) {
    assert(tableIndex >= 0 && tableIndex < m_directory.getUsed());
    // Deliberately, an entry of 0 is no exception: such a table is read from sector 0.
    return yx::makeObject<CVMDKGrainTable>(
        m_stream.get(), m_access, m_grainSizeSectors, getEntry(m_directory, tableIndex),
        getEntry(m_redundantDirectory, tableIndex), getEntry(m_slotDirectory, tableIndex),
        m_entriesPerTable);
}

void CVMDKGrainDirectory::getGrainInfo(__int64 grainIndex, __int64& posSectors,
                                       __int64& slotSizeSectors) {
    getGrainTable(grainIndex / m_entriesPerTable)
        ->getGrainInfo(grainIndex % m_entriesPerTable, posSectors, slotSizeSectors);
}

void CVMDKGrainDirectory::setGrainInfo(__int64 grainIndex, __int64 posSectors,
                                       __int64 slotSizeSectors) {
    getGrainTable(grainIndex / m_entriesPerTable)
        ->setGrainInfo(grainIndex % m_entriesPerTable, posSectors, slotSizeSectors);
}

void CVMDKGrainDirectory::flushChangesToStream() {
    m_grainTableCache->flushCachedTablesFromDirectoryToStream(this);
}

void CVMDKGrainDirectory::verifySizes() {
    if (m_grainSizeSectors < 1)
        throwCorruptField(*m_stream, kGrainSizeField, m_grainSizeSectors);
    if (m_entriesPerTable < 1)
        throwCorruptField(*m_stream, kTableSizeField, m_entriesPerTable);
    if (m_capacitySectors < 0)
        throwCorruptField(*m_stream, kCapacityField, m_capacitySectors);
}

void CVMDKGrainDirectory::verifyTablesFitStream() {
    // A directory is read in one piece, whose size is an int.
    constexpr __int64 kMaxTableCount = std::numeric_limits<int>::max() / kDirectoryEntrySizeBytes;
    __int64 const tableSizeBytes = __int64{m_entriesPerTable} * kGrainTableEntrySizeBytes;
    if (m_tableCount > kMaxTableCount ||
        !isMetadataSizePlausible(*m_stream, m_tableCount * tableSizeBytes)) {
        throwCorruptField(*m_stream, kCapacityField, m_capacitySectors);
    }
}

void CVMDKGrainDirectory::readDirectories() {
    int const tableCount = static_cast<int>(m_tableCount);
    readNumbers(*m_stream, m_directoryPosSectors, "grain directory position", m_directory,
                tableCount);
    if (m_redundantDirectoryPosSectors > 0) {
        readNumbers(*m_stream, m_redundantDirectoryPosSectors, "redundant grain directory position",
                    m_redundantDirectory, tableCount);
    }
}

unsigned int CVMDKGrainDirectory::calcProbeSector() const {
    // Deliberately all in 32 bits without a sign, as directory entries are: sums wrap.
    if (m_tableCount < 1) {
        return std::max(static_cast<unsigned int>(m_directoryPosSectors),
                        static_cast<unsigned int>(m_redundantDirectoryPosSectors)) +
               1;
    }
    int const last = static_cast<int>(m_tableCount) - 1;
    unsigned int lastTableSector = m_directory.getData()[last];
    if (m_redundantDirectory.getUsed() > 0)
        lastTableSector = std::max(lastTableSector, m_redundantDirectory.getData()[last]);
    unsigned int const tableSizeBytes =
        static_cast<unsigned int>(m_entriesPerTable) * kGrainTableEntrySizeBytes;
    return lastTableSector + (tableSizeBytes + kSectorSizeBytes - 1) / kSectorSizeBytes;
}

void CVMDKGrainDirectory::findSlotDirectory() {
    unsigned int const probeSector = calcProbeSector();
    // Deliberately a product in 32 bits: which sector is looked at behind 4 GiB, and so whether an
    // extent counts as one with slot sizes, depends on the wrap.
    unsigned int const probePosBytes = probeSector * static_cast<unsigned int>(kSectorSizeBytes);
    m_stream->seek(probePosBytes);
    unsigned char sector[kSectorSizeBytes];
    if (m_stream->readLax(sector, kSectorSizeBytes) != kSectorSizeBytes)
        return;
    __int64 sizeSectors = 0;
    if (!isVMDKMarker(sector, VMDKMarkerYxSlotSizeDirectory, &sizeSectors))
        return;
    __int64 const expectedSizeSectors = getVMDKDirectorySizeSectors(m_tableCount);
    if (sizeSectors == expectedSizeSectors) {
        m_slotDirectoryPosSectors = __int64{probeSector} + 1;
        return;
    }
    yx::logWarning("Found VMDK marker for yxSlotDirectory, but the slot directory size does not "
                   "match the expected value (actual: " +
                   yx::toString(sizeSectors) + ", expected: " + yx::toString(expectedSizeSectors) +
                   ", uri: '" + m_stream->getURI().toString(true) +
                   "'). Ignoring the slot directory.");
}

void CVMDKGrainDirectory::readSlotDirectory() {
    if (m_slotDirectoryPosSectors > 0) {
        readNumbers(*m_stream, m_slotDirectoryPosSectors, "slot size directory position",
                    m_slotDirectory, static_cast<int>(m_tableCount));
    } else if (m_compressed) {
        throw yx::CError("Slot size directory not found in compressed VMDK.", "", -1,
                         uriPropsOf(*m_stream), nullptr);
    }
}

} // namespace kelm

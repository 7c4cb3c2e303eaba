#include "host/disk/chain_map.h"

#include <algorithm>
#include <cassert>
#include <limits>

#include "host/disk/chain_members.h"
#include "host/disk/disk_layout.h"
#include "kelm/kelm.h"
#include "yx/access_stream.h"
#include "yx/error.h"
#include "yx/native_stream.h"
#include "yx/optimizing_io_stream.h"

namespace kelm::host {

namespace {

/// What an entry has in the place of a level.
constexpr unsigned short kHeldNowhere = 0xFFFF;
constexpr unsigned short kNotKnown = 0xFFFE;

/// Behind the end of a parent, where what lies below it is not looked at.
constexpr unsigned short kPastEnd = 0xFFFD;

static_assert(kMaxChainLength < kPastEnd);

/// Tables of two runs of the library, since an extent may begin within a run of the disk's.
constexpr int kTablesWhileMerging = 64;

/// And at least one for each disk of the chain. Each has a stream with windows of its own, up to
/// 1 MiB.
constexpr std::size_t kLeastDirectories = 16;

constexpr unsigned long long kFooterHasDirectory = 0xFFFFFFFFFFFFFFFF;

bool areLinked(ChainMember const& child, ChainMember const& parent) {
    return child.descriptor->getParentContentID() == parent.descriptor->getContentID();
}

/// Whether the list has all parents, unchanged.
bool isWholeChain(std::vector<ChainMember> const& members) {
    for (std::size_t i = 0; i + 1 < members.size(); ++i) {
        if (!areLinked(members[i], members[i + 1]))
            return false;
    }
    return members.back().descriptor->getParentContentID() == kNoParentContentID;
}

/// Whether each grain of the disk is one whole grain of each file, by the descriptors.
bool haveSameGrains(std::vector<ChainMember> const& members) {
    for (ChainMember const& member : members) {
        bool const isLike = !member.extents.empty() &&
                            member.extents.front().grainSizeBytes ==
                                members.front().extents.front().grainSizeBytes &&
                            DiskLayout(member.extents).areExtentsWholeGrains();
        bool const hasEmpty =
            std::any_of(member.extents.begin(), member.extents.end(),
                        [](DiskExtent const& extent) { return extent.getSizeBytes() == 0; });
        if (!isLike || hasEmpty)
            return false;
    }
    return true;
}

/// The library's own refusals, but for those of the key.
bool isHeaderServed(CVMDKSparseExtentHeader const& header) {
    bool const hasMarkers = (header.getFlags() & kFlagMetaMarkers) != 0;
    return header.getVersion() >= kOldestVersion && header.getVersion() <= kNewestVersion &&
           header.isCompressed() == hasMarkers &&
           header.getGrainDirectoryOffsetSectors() != kFooterHasDirectory &&
           header.getGrainTableEntryCount() >= 1 &&
           header.getGrainTableEntryCount() <=
               static_cast<unsigned int>(std::numeric_limits<int>::max());
}

[[noreturn]] void throwNotServed(yx::CURI const& uri) {
    throw yx::CIOError(yx::CIOError::NotSupported, "The extent is not like the others.",
                       yx::CProps().add("uri", uri.toString(true)), nullptr);
}

} // namespace

/// Merges the tables of one run, level by level.
class ChainMap::Merging {
public:
    Merging(ChainMap& map, __int64 firstGrain, __int64 endGrain)
        : m_map(map),
          m_firstGrain(firstGrain),
          m_endGrain(endGrain),
          m_entries(static_cast<std::size_t>(endGrain - firstGrain), Entry{0, 0, kHeldNowhere}),
          m_openCount(endGrain - firstGrain) {}

    void run() {
        for (std::size_t level = 0; level < m_map.m_levels.size() && m_openCount > 0; ++level)
            merge(level);
    }

    Run makeRun() const {
        Run run;
        for (int table = 0; table < kRunTables; ++table) {
            auto const first = static_cast<std::size_t>(table) * kTableGrains;
            if (first >= m_entries.size())
                break;
            auto const end = std::min(first + kTableGrains, m_entries.size());
            run.tables[static_cast<std::size_t>(table)] = makeTable(first, end);
            run.heldTables += run.tables[static_cast<std::size_t>(table)] ? 1 : 0;
        }
        return run;
    }

private:
    std::unique_ptr<Entry[]> makeTable(std::size_t first, std::size_t end) const {
        auto const begin = m_entries.begin();
        auto const isNowhere = [](Entry const& entry) {
            return entry.level == kHeldNowhere || entry.level == kPastEnd;
        };
        if (std::all_of(begin + static_cast<std::ptrdiff_t>(first),
                        begin + static_cast<std::ptrdiff_t>(end), isNowhere))
            return nullptr;
        auto table = std::make_unique<Entry[]>(kTableGrains);
        std::fill_n(table.get(), kTableGrains, Entry{0, 0, kHeldNowhere});
        std::copy(begin + static_cast<std::ptrdiff_t>(first),
                  begin + static_cast<std::ptrdiff_t>(end), table.get());
        return table;
    }

    /// Sets an entry that no nearer disk has set.
    void set(__int64 grainIndex, Entry const& entry) {
        Entry& target = m_entries[static_cast<std::size_t>(grainIndex - m_firstGrain)];
        if (target.level != kHeldNowhere)
            return;
        target = entry;
        --m_openCount;
    }

    void merge(std::size_t index) {
        Level& level = m_map.m_levels[index];
        __int64 const grainSizeBytes = m_map.m_grainSizeBytes;
        __int64 const wholeGrains = level.sizeBytes / grainSizeBytes;
        __int64 const grains = wholeGrains + (level.sizeBytes % grainSizeBytes != 0 ? 1 : 0);
        if (index > 0) {
            for (__int64 grain = std::max(grains, m_firstGrain); grain < m_endGrain; ++grain)
                set(grain, {0, 0, kPastEnd});
            // Of a part of it zeros are read, whatever the file holds behind the parent's end.
            if (wholeGrains < grains && wholeGrains >= m_firstGrain && wholeGrains < m_endGrain)
                set(wholeGrains, {0, 0, kNotKnown});
        }
        __int64 const endGrain = std::min(m_endGrain, grains);
        for (__int64 grain = m_firstGrain; grain < endGrain && m_openCount > 0;) {
            Extent& extent = extentOf(level, grain);
            __int64 const end = std::min(endGrain, extent.endGrain);
            m_map.openExtent(level, extent);
            if (!extent.isMissing)
                mergeExtent(extent, static_cast<unsigned short>(index), grain, end);
            assert(end > grain);
            grain = end;
        }
    }

    void mergeExtent(Extent& extent, unsigned short level, __int64 grain, __int64 end) {
        __int64 const slotNeededSectors =
            extent.isCompressed ? 1 : m_map.m_grainSizeBytes / kSectorSizeBytes;
        while (grain < end) {
            __int64 const inExtent = grain - extent.firstGrain;
            __int64 const inTable = inExtent % extent.entriesPerTable;
            __int64 const tableEnd = std::min(end, grain + extent.entriesPerTable - inTable);
            yx::P<CVMDKGrainTable> const table =
                extent.directory->getGrainTable(inExtent / extent.entriesPerTable);
            for (__int64 const start = grain; grain < tableEnd; ++grain) {
                __int64 posSectors = 0;
                __int64 slotSizeSectors = 0;
                table->getGrainInfo(inTable + grain - start, posSectors, slotSizeSectors);
                if (posSectors == 0)
                    continue;
                Entry entry{static_cast<unsigned int>(posSectors), 0, level};
                if (extent.isCompressed)
                    entry.slotSizeSectors = static_cast<unsigned short>(slotSizeSectors);
                // The library refuses such a grain.
                if (slotSizeSectors < slotNeededSectors)
                    entry.level = kNotKnown;
                set(grain, entry);
            }
        }
    }

    ChainMap& m_map;
    __int64 m_firstGrain;
    __int64 m_endGrain;
    std::vector<Entry> m_entries;

    /// How many entries no disk has set yet.
    __int64 m_openCount;
};

std::vector<ChainMap::Level> ChainMap::readLevels(std::vector<ChainMember> const& members) {
    std::vector<Level> levels;
    for (ChainMember const& member : members) {
        Level& level = levels.emplace_back();
        level.sizeBytes = member.extents.back().endBytes;
        level.isEncrypted = member.descriptor->isEncrypted();
        level.createsFilesOnDemand = member.descriptor->getYxCreateExtentFilesOnDemand();
        for (DiskExtent const& described : member.extents) {
            Extent& extent = level.extents.emplace_back();
            extent.sizeSectors = described.getSizeSectors();
            extent.uri = described.uri;
            extent.firstGrain = described.getStartGrainIndex();
            extent.endGrain =
                (described.endBytes + described.grainSizeBytes - 1) / described.grainSizeBytes;
        }
    }
    return levels;
}

std::shared_ptr<ChainMap> ChainMap::tryMake(yx::IFileSystem* fileSystem,
                                            std::vector<ChainMember> const& members,
                                            int maxTables) {
    try {
        if (members.empty() || !haveSameGrains(members) || !isWholeChain(members))
            return nullptr;
        return std::shared_ptr<ChainMap>(
            new ChainMap(fileSystem, readLevels(members),
                         members.front().extents.front().grainSizeBytes, maxTables));
    } catch (yx::CError const& error) {
        // Whoever reads the disk without a map meets it again.
        error.nop();
        return nullptr;
    }
}

ChainMap::ChainMap(yx::IFileSystem* fileSystem, std::vector<Level> levels, __int64 grainSizeBytes,
                   int maxTables)
    : m_fileSystem(fileSystem),
      m_grainSizeBytes(grainSizeBytes),
      m_maxTables(maxTables),
      m_tables(yx::makeObject<CVMDKGrainTableCache>(kTablesWhileMerging)),
      m_levels(std::move(levels)) {
    assert(m_grainSizeBytes > 0 && !m_levels.empty());
}

ChainMap::~ChainMap() = default;

ChainMap::Extent& ChainMap::extentOf(Level& level, __int64 grainIndex) {
    auto const found = std::upper_bound(
        level.extents.begin(), level.extents.end(), grainIndex,
        [](__int64 grain, Extent const& extent) { return grain < extent.endGrain; });
    assert(found != level.extents.end() && found->firstGrain <= grainIndex);
    return *found;
}

void ChainMap::openExtent(Level& level, Extent& extent) {
    if (!extent.file && !extent.isMissing)
        openFile(level, extent);
    if (extent.isMissing)
        return;
    if (!extent.directory)
        readHeader(level, extent);
    keepDirectory(extent);
}

void ChainMap::openFile(Level const& level, Extent& extent) {
    if (level.createsFilesOnDemand && !m_fileSystem->fileExists(extent.uri)) {
        extent.isMissing = true;
        return;
    }
    unsigned int reserved = 0;
    yx::P<yx::IIOStream> const file =
        m_fileSystem->openFile(extent.uri, yx::IIOStream::ReadOnly, &reserved);
    extent.fileBytes = file->getLength();
    auto const* const native = dynamic_cast<yx::INativeStream*>(file.get());
    bool const demandsAlignment = dynamic_cast<yx::IAlignedStreamBase*>(file.get()) != nullptr;
    if (native && !demandsAlignment)
        extent.fileDescriptor = native->getFileDescriptor();
    if (extent.fileDescriptor < 0)
        extent.placeReader = findPlaceReader(*file);
    extent.file = file;
}

/// The directory goes when many others have been used since.
void ChainMap::keepDirectory(Extent& extent) {
    m_directories.remove(&extent);
    m_directories.push_front(&extent);
    if (m_directories.size() <= std::max(kLeastDirectories, m_levels.size()))
        return;
    m_directories.back()->directory.reset();
    m_directories.pop_back();
}

void ChainMap::readHeader(Level& level, Extent& extent) {
    extent.file->seek(0);
    yx::P<yx::IIOStream> const stream = yx::makeObject<yx::COptimizingIOStream>(extent.file.get());
    CVMDKSparseExtentHeader header;
    yx::CDataInStream in(stream.get());
    header.load(in);
    bool const isLike =
        isHeaderServed(header) && header.isEncrypted() == level.isEncrypted &&
        header.getGrainSizeSectors() ==
            static_cast<unsigned long long>(m_grainSizeBytes / kSectorSizeBytes) &&
        header.getCapacitySectors() <= kMaxPositionSectors &&
        header.getCapacitySectors() >= static_cast<unsigned long long>(extent.sizeSectors);
    if (!isLike)
        throwNotServed(extent.uri);
    yx::TBuffer<unsigned char> const& hash = header.getEncryptionKeyHash();
    extent.keyHash.assign(hash.getData(), hash.getData() + hash.getUsed());
    // Whoever opens the disk compares the key with the first extent's hash.
    Extent& first = level.extents.front();
    if (level.isEncrypted && &extent != &first) {
        openExtent(level, first);
        if (first.keyHash != extent.keyHash)
            throwNotServed(extent.uri);
    }
    extent.directory = yx::makeObject<CVMDKGrainDirectory>(stream.get(), yx::IIOStream::ReadOnly,
                                                           header, m_tables.get());
    // Once, since other threads may look at it from then on.
    if (extent.entriesPerTable > 0)
        return;
    extent.isCompressed = header.isCompressed();
    extent.isEncrypted = header.isEncrypted();
    extent.entriesPerTable = static_cast<int>(header.getGrainTableEntryCount());
}

std::shared_ptr<ChainMap::Run const> ChainMap::mergeRun(__int64 runIndex) {
    __int64 const grainCount = (getSizeBytes() + m_grainSizeBytes - 1) / m_grainSizeBytes;
    __int64 const firstGrain = runIndex * kRunGrains;
    __int64 const endGrain = std::min(firstGrain + kRunGrains, grainCount);
    assert(firstGrain < endGrain);
    auto run = std::make_shared<Run>();
    try {
        Merging merging(*this, firstGrain, endGrain);
        merging.run();
        *run = merging.makeRun();
    } catch (yx::CError const& error) {
        // Nothing is known of this run then; who reads its grains meets the error again.
        error.nop();
        run->isKnown = false;
    }
    m_tables->clear();
    return run;
}

std::shared_ptr<ChainMap::Run const> ChainMap::findKeptRun(__int64 runIndex) {
    std::lock_guard const lock(m_mutex);
    auto const found = m_runs.find(runIndex);
    if (found == m_runs.end())
        return nullptr;
    m_uses.splice(m_uses.begin(), m_uses, found->second.use);
    return found->second.run;
}

void ChainMap::keepRun(__int64 runIndex, std::shared_ptr<Run const> const& run) {
    std::lock_guard const lock(m_mutex);
    m_uses.push_front(runIndex);
    m_runs[runIndex] = {run, m_uses.begin()};
    m_keptTables += run->heldTables;
    while (m_keptTables > m_maxTables && m_uses.size() > 1) {
        auto const oldest = m_runs.find(m_uses.back());
        m_keptTables -= oldest->second.run->heldTables;
        m_runs.erase(oldest);
        m_uses.pop_back();
    }
}

std::shared_ptr<ChainMap::Run const> ChainMap::findRun(__int64 runIndex) {
    if (std::shared_ptr<Run const> kept = findKeptRun(runIndex))
        return kept;
    std::lock_guard const merging(m_merging);
    // Who was here before may have merged it.
    if (std::shared_ptr<Run const> kept = findKeptRun(runIndex))
        return kept;
    std::shared_ptr<Run const> run = mergeRun(runIndex);
    keepRun(runIndex, run);
    return run;
}

std::optional<MappedGrain> ChainMap::find(__int64 grainIndex) {
    if (grainIndex < 0 || grainIndex > (getSizeBytes() - 1) / m_grainSizeBytes)
        return std::nullopt;
    std::shared_ptr<Run const> const run = findRun(grainIndex / kRunGrains);
    if (!run->isKnown)
        return std::nullopt;
    __int64 const inRun = grainIndex % kRunGrains;
    auto const& table = run->tables[static_cast<std::size_t>(inRun / kTableGrains)];
    MappedGrain grain;
    if (!table)
        return grain;
    Entry const& entry = table[static_cast<std::size_t>(inRun % kTableGrains)];
    if (entry.level == kNotKnown)
        return std::nullopt;
    if (entry.level == kHeldNowhere || entry.level == kPastEnd)
        return grain;
    grain.level = entry.level;
    grain.posSectors = entry.posSectors;
    grain.slotSizeSectors = entry.slotSizeSectors;
    grain.extent = &extentOf(m_levels[entry.level], grainIndex);
    return grain;
}

} // namespace kelm::host

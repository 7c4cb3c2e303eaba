#pragma once

#include <array>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <unordered_map>
#include <vector>

#include "host/store/place_reader.h"
#include "kelm/metadata/grain_directory.h"
#include "yx/file_system.h"

namespace kelm::host {

struct ChainMember;

/// An extent file of a chain that is only read.
struct MappedExtent {
    /// Its name, as the descriptor has it.
    yx::CURI uri;

    /// The grains of the disk that it holds, by their indexes in the disk.
    __int64 firstGrain = 0;
    __int64 endGrain = 0;

    /// How the file stores them.
    bool isCompressed = false;
    bool isEncrypted = false;

    /// The open file, for reading at places, as long as the map lives; -1 if it is no file of the
    /// operating system, or one that demands alignment.
    int fileDescriptor = -1;

    /// The same for a file of a store; null if that does not offer it.
    IPlaceReader const* placeReader = nullptr;

    /// Whether there is one of both.
    bool canReadPlaces() const { return fileDescriptor >= 0 || placeReader; }

    /// How long the file was when it was opened.
    __int64 fileBytes = 0;
};

/// Where a chain holds a grain.
struct MappedGrain {
    /// The disk that holds it: 0 for the disk itself, 1 for its parent. Below 0, no disk does, and
    /// the rest has no meaning.
    int level = -1;

    /// Its place in the file, and what is reserved for it there; 0 for a grain that is stored plain.
    __int64 posSectors = 0;
    int slotSizeSectors = 0;

    /// The file; lives as long as the map.
    MappedExtent const* extent = nullptr;

    /// Whether a disk of the chain holds the grain.
    bool isHeld() const { return level >= 0; }
};

/// Which disk of a chain holds each grain, and where: the grain tables of a disk and of its parents,
/// merged into one. A look takes the same time however long the chain is. The tables are merged when
/// a grain of theirs is first asked for, 32 at a time as the library reads them, from the disk down
/// to where all grains have been found.
///
/// Takes 8 bytes for each grain of those tables of 512 that hold anything, up to a limit; above it,
/// what was not used for longest goes, and is merged again when it is needed. Beside that, the
/// directories of at most 16 extent files, or of one for each disk of a longer chain.
///
/// For chains in which every grain of the disk is one whole grain of each file: one grain size, and
/// extents that are whole numbers of grains. What cannot be read, what the library would refuse, and
/// the grain in which a shorter parent ends are not known to the map; ask the disks themselves, who
/// have the words for it.
///
/// The disks must be open for reading only, so that nobody changes them. Serves any number of
/// threads, but the file system that it is made with serves it alone while one of them is in `find`.
class ChainMap {
public:
    /// The map of a chain as `listChainMembers` lists it, or null if the chain is none that a map
    /// can serve or is not whole: a parent is missing, or was changed since. Reads no tables yet.
    /// `maxTables` is the most merged tables to keep, but at least one run of 32 is kept. Errors are
    /// only `std::bad_alloc`.
    static std::shared_ptr<ChainMap> tryMake(yx::IFileSystem* fileSystem,
                                             std::vector<ChainMember> const& members,
                                             int maxTables);

    ChainMap(ChainMap const&) = delete;
    ChainMap& operator=(ChainMap const&) = delete;
    ~ChainMap();

    /// Where the chain holds a grain of the disk, or nothing if that is not known. Outside of the
    /// disk nothing is known.
    std::optional<MappedGrain> find(__int64 grainIndex);

    /// The size of a grain in all disks of the chain.
    __int64 getGrainSizeBytes() const { return m_grainSizeBytes; }

    /// The size of the disk, whose last grain may be cut short.
    __int64 getSizeBytes() const { return m_levels.front().sizeBytes; }

    /// How many disks the chain has.
    int getLevelCount() const { return static_cast<int>(m_levels.size()); }

private:
    static constexpr int kTableGrains = 512;
    static constexpr int kRunTables = 32;
    static constexpr __int64 kRunGrains = __int64{kTableGrains} * kRunTables;

    struct Entry {
        unsigned int posSectors;
        unsigned short slotSizeSectors;
        unsigned short level;
    };

    /// The merged tables of a run; null where no grain of a table is held.
    struct Run {
        std::array<std::unique_ptr<Entry[]>, kRunTables> tables;
        int heldTables = 0;
        bool isKnown = true;
    };

    struct KeptRun {
        std::shared_ptr<Run const> run;
        std::list<__int64>::iterator use;
    };

    struct Extent : MappedExtent {
        bool isMissing = false;

        /// Stays open once it is.
        yx::P<yx::IIOStream> file = {};

        /// Null where it was not needed lately.
        yx::P<CVMDKGrainDirectory> directory = {};
        int entriesPerTable = 0;

        /// By the descriptor.
        __int64 sizeSectors = 0;

        /// Of an encrypted extent.
        std::vector<unsigned char> keyHash;
    };

    struct Level {
        __int64 sizeBytes = 0;
        bool isEncrypted = false;
        bool createsFilesOnDemand = false;
        std::vector<Extent> extents;
    };

    class Merging;

    ChainMap(yx::IFileSystem* fileSystem, std::vector<Level> levels, __int64 grainSizeBytes,
             int maxTables);

    static std::vector<Level> readLevels(std::vector<ChainMember> const& members);
    static Extent& extentOf(Level& level, __int64 grainIndex);
    std::shared_ptr<Run const> findRun(__int64 runIndex);
    std::shared_ptr<Run const> findKeptRun(__int64 runIndex);
    void keepRun(__int64 runIndex, std::shared_ptr<Run const> const& run);
    std::shared_ptr<Run const> mergeRun(__int64 runIndex);
    void openExtent(Level& level, Extent& extent);
    void openFile(Level const& level, Extent& extent);
    void readHeader(Level& level, Extent& extent);
    void keepDirectory(Extent& extent);

    yx::P<yx::IFileSystem> m_fileSystem;
    __int64 m_grainSizeBytes;
    int m_maxTables;

    /// Of one run; emptied behind each.
    yx::P<CVMDKGrainTableCache> m_tables;

    /// The disk, then its parents.
    std::vector<Level> m_levels;

    /// The extents whose directories are in memory, the one used last first.
    std::list<Extent*> m_directories;

    /// Held by who merges, before the other.
    std::mutex m_merging;

    /// Held for a look.
    std::mutex m_mutex;
    std::unordered_map<__int64, KeptRun> m_runs;

    /// The indexes of the runs, the one used last first.
    std::list<__int64> m_uses;
    int m_keptTables = 0;
};

} // namespace kelm::host

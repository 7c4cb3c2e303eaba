#pragma once

#include "kelm/format/sparse_extent_header.h"
#include "kelm/metadata/grain_table_cache.h"

namespace kelm {

/// The grain directory of one sparse extent: finds the grain table, and the entry in it, of each
/// grain of the extent.
///
/// In the file, each a run of little-endian 32-bit sector numbers, one for each table:
///
///     grain directory            at directoryPosSectors
///     redundant grain directory  at redundantDirectoryPosSectors, if above 0
///     slot size directory        behind a marker sector right behind the last grain table
///
/// The directories are read once, at construction, and never change. Tables are loaded on demand in
/// runs of 32 and live in a `CVMDKGrainTableCache`, which may serve many directories. The directory
/// itself never writes. Not thread-safe.
class KELM_API CVMDKGrainDirectory : public yx::CBase, public virtual yx::IBase {
public:
    /// How many grains a capacity takes, the last one perhaps in part. A grain size below 1 is
    /// `yx::CInvalidArgError`.
    static __int64 calcExtentGrainCount(__int64 capacitySectors, __int64 grainSizeSectors);

    /// How many tables these grains take. A grain size or table size below 1 is
    /// `yx::CInvalidArgError`.
    static __int64 calcExtentGrainTableCount(__int64 capacitySectors, __int64 grainSizeSectors,
                                             int entriesPerTable);

    /// Reads the directories. `redundantDirectoryPosSectors` of 0 or below means that there is no
    /// redundant directory. Tables that an earlier directory of the same address left in the cache
    /// (see the destructor) go.
    ///
    /// Sizes and positions that cannot be (a grain size or table size below 1, a negative capacity,
    /// directories or tables that exceed the stream) are `yx::CIOError` `CorruptData` with "uri". A
    /// compressed extent without a slot size directory is `yx::CError`. What the stream fails with
    /// passes.
    CVMDKGrainDirectory(yx::IIOStream* stream, yx::IIOStream::Access access,
                        __int64 directoryPosSectors, __int64 redundantDirectoryPosSectors,
                        __int64 capacitySectors, __int64 grainSizeSectors, int entriesPerTable,
                        bool compressed, CVMDKGrainTableCache* grainTableCache);

    /// The directory that the extent's header describes, which has been loaded from `stream`.
    CVMDKGrainDirectory(yx::IIOStream* stream, yx::IIOStream::Access access,
                        CVMDKSparseExtentHeader const& header,
                        CVMDKGrainTableCache* grainTableCache);

    /// A copy shares the stream and the cache, where its tables are its own.
    CVMDKGrainDirectory(CVMDKGrainDirectory const&) = default;
    CVMDKGrainDirectory& operator=(CVMDKGrainDirectory const&) = default;

    /// Flushes this directory's tables and takes them out of the cache. A failure is reported to
    /// `yx::onExceptionInDestructorIgnored`; if the flush failed, the tables stay in the cache
    /// until they are evicted.
    ~CVMDKGrainDirectory() override;

    /// The table of that index, from the cache or from the file. On a miss the whole aligned run of
    /// 32 tables around it is read and put into the cache, over what the cache holds of it.
    ///
    /// An index outside the directory is `yx::CInvalidArgError` "invalid table index: <index>" with
    /// "uri". Where a table of the run cannot be read, the error passes and none of those that this
    /// call has read stays in the cache: the next call for the run reads all of it.
    yx::P<CVMDKGrainTable> getGrainTable(__int64 tableIndex);

    /// `CVMDKGrainTable::getGrainInfo` by the grain's index in the extent; it may also throw what
    /// `getGrainTable` does.
    void getGrainInfo(__int64 grainIndex, __int64& posSectors, __int64& slotSizeSectors);

    /// `CVMDKGrainTable::setGrainInfo` by the grain's index in the extent; it may also throw what
    /// `getGrainTable` does.
    void setGrainInfo(__int64 grainIndex, __int64 posSectors, __int64 slotSizeSectors);

    /// Writes the changed tables that are in the cache, in rising index. A failure passes; the
    /// table that failed and those behind it stay changed.
    void flushChangesToStream();

    /// Whether the extent keeps slot sizes.
    bool getHaveSlotSizeInfo() const { return m_slotDirectory.getUsed() > 0; }

private:
    void verifySizes();
    void verifyTablesFitStream();
    void readDirectories();
    unsigned int calcProbeSector() const;
    void findSlotDirectory();
    void readSlotDirectory();
    yx::P<CVMDKGrainTable> loadRun(__int64 tableIndex);
    void uncacheTables(__int64 first, __int64 end);
    yx::P<CVMDKGrainTable> loadTable(int tableIndex);

    yx::P<yx::IIOStream> m_stream;
    yx::IIOStream::Access m_access;
    yx::P<CVMDKGrainTableCache> m_grainTableCache;
    __int64 m_directoryPosSectors;
    __int64 m_redundantDirectoryPosSectors;
    __int64 m_slotDirectoryPosSectors = 0;
    __int64 m_grainSizeSectors;
    int m_entriesPerTable;
    bool m_compressed;
    // Part of the object's shape; behind the constructor only the tables are counted.
    __int64 m_grainCount = 0;
    __int64 m_tableCount = 0;
    yx::TBuffer<unsigned int> m_directory;
    yx::TBuffer<unsigned int> m_redundantDirectory;
    yx::TBuffer<unsigned int> m_slotDirectory;
    __int64 m_capacitySectors;
};

} // namespace kelm

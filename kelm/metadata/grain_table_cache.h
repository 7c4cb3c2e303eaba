#pragma once

#include <map>

#include "kelm/metadata/grain_table.h"
#include "kelm/metadata/table_change_count.h"
#include "yx/most_recently_used_cache.h"

namespace kelm {

class CVMDKGrainDirectory;

/// Keeps grain tables of any number of directories in memory, and evicts the least recently used
/// ones above its limit.
///
/// Between uses it is the only owner of a table, and so decides when a changed table reaches the
/// file: a table that leaves the cache flushes itself at its last release. Eviction goes by recency
/// alone, whether or not a table has changed. If that flush fails, the failure is reported to
/// `yx::onExceptionInDestructorIgnored` and the table's changes are lost. A disk that is written to
/// should therefore have a cache without limit.
///
/// Disks that share a cache must together be used by one thread at a time.
class KELM_API CVMDKGrainTableCache : public yx::CBase, public virtual yx::IBase {
public:
    /// The directory, by its address and without a reference, and the table's index in it.
    struct CKey {
        /// Whose table it is, and which.
        CVMDKGrainDirectory* directory;
        __int64 tableIndex;

        /// By address, then by index: one directory's tables lie together, in rising index.
        bool operator<(CKey const& other) const;
    };

    /// Tables of 512 grains each: 32 GiB of disk with grains of 64 KiB.
    static constexpr int kDefaultLimit = 1024;

    /// Any negative limit is none.
    static constexpr int kNoLimit = -1;

    /// `limit` is the most tables kept, over all directories; 0 to keep none.
    explicit CVMDKGrainTableCache(int limit = kDefaultLimit);

    /// A copy shares the tables.
    CVMDKGrainTableCache(CVMDKGrainTableCache const&) = default;
    CVMDKGrainTableCache& operator=(CVMDKGrainTableCache const&) = default;

    ~CVMDKGrainTableCache() override;

    /// The table, which thereby becomes the most recently used; null if it is not here.
    yx::P<CVMDKGrainTable> getCachedTable(CVMDKGrainDirectory* directory, __int64 tableIndex);

    /// Inserts or replaces, and makes the table the most recently used. A replaced table is
    /// released when the new one is in place. Only an insertion evicts, if automatic enforcement is
    /// on.
    void setCachedTable(CVMDKGrainDirectory* directory, __int64 tableIndex, CVMDKGrainTable* table);

    /// Drops that table, if it is here. Like any other that leaves the cache, it flushes itself at
    /// its last release.
    void removeCachedTable(CVMDKGrainDirectory* directory, __int64 tableIndex);

    /// Flushes that directory's tables in rising index and keeps them, with their recency. The
    /// first failure passes; the tables behind it stay changed. Where no table was changed since,
    /// the cost does not depend on how many there are.
    void flushCachedTablesFromDirectoryToStream(CVMDKGrainDirectory* directory);

    /// Drops that directory's tables in rising index.
    void removeCachedTablesFromDirectory(CVMDKGrainDirectory* directory);

    /// Whether insertions evict down to the limit; true at first. Switching it on evicts at once.
    /// While it is off the cache grows without bound.
    void setAutoEnforceLimit(bool enabled);

    /// Evicts down to the limit, also while automatic enforcement is off.
    void enforceLimit();

    /// Drops all tables.
    void clear();

    /// The tables of all directories together.
    int getCachedTableCount() const;

private:
    using Tables = yx::TMostRecentlyUsedCache<CKey, CVMDKGrainTable>;

    yx::P<Tables> m_tables;

    /// Of all tables that are or were in the cache, shared with its copies as they are.
    yx::P<CVMDKTableChangeCount> m_changeCount;

    /// The change count at which a directory's tables were last flushed, all of them.
    std::map<CVMDKGrainDirectory*, unsigned long long> m_flushedAt;
};

} // namespace kelm

#include "kelm/metadata/grain_table_cache.h"

#include <cassert>
#include <functional>
#include <limits>
#include <optional>

namespace kelm {

namespace {

constexpr __int64 kFirstTableIndex = std::numeric_limits<__int64>::min();

/// Calls `visit` with the key and the table of each entry of the directory, in rising index.
template <class Tables, class Visit>
void forEachTable(Tables const& tables, CVMDKGrainDirectory* directory, Visit visit) {
    typename Tables::CEnum position(tables, {directory, kFirstTableIndex});
    for (; !position.atEnd() && position.getKey().directory == directory; position.next())
        visit(position.getKey(), *position.getValue());
}

/// For assertions.
template <class Tables>
[[maybe_unused]] bool hasUnflushedTable(Tables const& tables, CVMDKGrainDirectory* directory) {
    bool hasOne = false;
    forEachTable(tables, directory, [&](CVMDKGrainTableCache::CKey const&, CVMDKGrainTable& table) {
        hasOne |= table.hasUnflushedChanges();
    });
    return hasOne;
}

template <class Tables>
std::optional<CVMDKGrainTableCache::CKey> findFirstKey(Tables const& tables,
                                                       CVMDKGrainDirectory* directory) {
    typename Tables::CEnum const position(tables, {directory, kFirstTableIndex});
    if (position.atEnd() || position.getKey().directory != directory)
        return std::nullopt;
    return position.getKey();
}

} // namespace

bool CVMDKGrainTableCache::CKey::operator<(CKey const& other) const {
    if (directory != other.directory)
        return std::less<CVMDKGrainDirectory*>()(directory, other.directory);
    return tableIndex < other.tableIndex;
}

CVMDKGrainTableCache::CVMDKGrainTableCache(int limit)
    : m_tables(yx::makeObject<Tables>(limit)),
      m_changeCount(yx::makeObject<CVMDKTableChangeCount>()) {}

CVMDKGrainTableCache::~CVMDKGrainTableCache() = default;

yx::P<CVMDKGrainTable> CVMDKGrainTableCache::getCachedTable(CVMDKGrainDirectory* directory,
                                                            __int64 tableIndex) {
    return m_tables->get({directory, tableIndex});
}

void CVMDKGrainTableCache::setCachedTable(CVMDKGrainDirectory* directory, __int64 tableIndex,
                                          CVMDKGrainTable* table) {
    assert(directory && table);
    if (!table->countChangesIn(m_changeCount.get()))
        m_changeCount->setIncomplete();
    if (table->hasUnflushedChanges())
        m_changeCount->increment();
    m_tables->set({directory, tableIndex}, table);
}

void CVMDKGrainTableCache::removeCachedTable(CVMDKGrainDirectory* directory, __int64 tableIndex) {
    m_tables->remove({directory, tableIndex});
}

void CVMDKGrainTableCache::flushCachedTablesFromDirectoryToStream(CVMDKGrainDirectory* directory) {
    constexpr unsigned long long kNever = std::numeric_limits<unsigned long long>::max();
    unsigned long long& flushedAt = m_flushedAt.try_emplace(directory, kNever).first->second;
    if (m_changeCount->isComplete() && flushedAt == m_changeCount->get()) {
        assert(!hasUnflushedTable(*m_tables, directory));
        return;
    }
    forEachTable(*m_tables, directory,
                 [](CKey const&, CVMDKGrainTable& table) { table.flushChangesToStream(); });
    flushedAt = m_changeCount->get();
    assert(!hasUnflushedTable(*m_tables, directory));
}

void CVMDKGrainTableCache::removeCachedTablesFromDirectory(CVMDKGrainDirectory* directory) {
    m_flushedAt.erase(directory);
    // One search for each, so that it needs no memory: the end of a directory must not fail here.
    while (std::optional<CKey> const key = findFirstKey(*m_tables, directory))
        m_tables->remove(*key);
}

void CVMDKGrainTableCache::setAutoEnforceLimit(bool enabled) {
    m_tables->setAutoEnforceLimit(enabled);
}

void CVMDKGrainTableCache::enforceLimit() {
    m_tables->enforceLimit();
}

void CVMDKGrainTableCache::clear() {
    m_tables->clear();
}

int CVMDKGrainTableCache::getCachedTableCount() const {
    return m_tables->getCount();
}

} // namespace kelm

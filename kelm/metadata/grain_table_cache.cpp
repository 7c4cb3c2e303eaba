#include "kelm/metadata/grain_table_cache.h"

#include <functional>
#include <limits>

#include "yx/list.h"

namespace kelm {

namespace {

/// Calls `visit` with the key and the table of each entry of the directory, in rising index.
template <class Tables, class Visit>
void forEachTable(Tables const& tables, CVMDKGrainDirectory* directory, Visit visit) {
    CVMDKGrainTableCache::CKey const first{directory, std::numeric_limits<__int64>::min()};
    typename Tables::CEnum position(tables, first);
    for (; !position.atEnd() && position.getKey().directory == directory; position.next())
        visit(position.getKey(), *position.getValue());
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
    if (!table->countChangesIn(m_changeCount.get()))
        m_changeCount->setIncomplete();
    if (table->hasUnflushedChanges())
        m_changeCount->increment();
    m_tables->set({directory, tableIndex}, table);
}

void CVMDKGrainTableCache::flushCachedTablesFromDirectoryToStream(CVMDKGrainDirectory* directory) {
    constexpr unsigned long long kNever = std::numeric_limits<unsigned long long>::max();
    unsigned long long& flushedAt = m_flushedAt.try_emplace(directory, kNever).first->second;
    if (m_changeCount->isComplete() && flushedAt == m_changeCount->get())
        return;
    forEachTable(*m_tables, directory,
                 [](CKey const&, CVMDKGrainTable& table) { table.flushChangesToStream(); });
    flushedAt = m_changeCount->get();
}

void CVMDKGrainTableCache::removeCachedTablesFromDirectory(CVMDKGrainDirectory* directory) {
    m_flushedAt.erase(directory);
    yx::TList<CKey> keys;
    forEachTable(*m_tables, directory,
                 [&](CKey const& key, CVMDKGrainTable&) { keys.pushBack(key); });
    for (CKey const& key : keys)
        m_tables->remove(key);
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

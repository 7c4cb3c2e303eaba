#include "host/disk/table_limit.h"

#include <algorithm>
#include <cassert>

namespace kelm::host {

TableLimit::TableLimit(CVMDKDisk& disk, std::function<void()> flush)
    : m_disk(disk), m_flush(std::move(flush)) {
    assert(m_flush);
}

void TableLimit::set(int maxTables) {
    assert(maxTables >= 1);
    m_tooManyTables = std::min(maxTables, kMaxTablesInMemory - 1) + 1;
}

void TableLimit::keep() {
    yx::P<CVMDKGrainTableCache> const tables = m_disk.getGrainTableCache();
    if (tables->getCachedTableCount() < m_tooManyTables)
        return;
    // All extents but the current one were flushed when they were left, so after this no table is
    // changed.
    m_flush();
    tables->clear();
    assert(tables->getCachedTableCount() == 0);
}

} // namespace kelm::host

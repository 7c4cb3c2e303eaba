#include "integrations/s3/block_cache.h"

#include <limits>

namespace kelm::s3 {

__int64 BlockCache::makeObjectNumber() {
    std::lock_guard const guard(m_mutex);
    return ++m_lastNumber;
}

BlockCache::Block BlockCache::find(__int64 objectNumber, __int64 blockIndex) {
    std::lock_guard const guard(m_mutex);
    auto const found = m_blocks.find({objectNumber, blockIndex});
    if (found == m_blocks.end())
        return nullptr;
    m_order.splice(m_order.begin(), m_order, found->second);
    return found->second->second;
}

void BlockCache::add(__int64 objectNumber, __int64 blockIndex, Block block) {
    std::lock_guard const guard(m_mutex);
    Key const key{objectNumber, blockIndex};
    if (m_blocks.contains(key))
        return;
    m_order.emplace_front(key, std::move(block));
    m_blocks.emplace(key, m_order.begin());
    if (m_order.size() > m_maxBlocks) {
        m_blocks.erase(m_order.back().first);
        m_order.pop_back();
    }
}

void BlockCache::remove(__int64 objectNumber) {
    std::lock_guard const guard(m_mutex);
    auto const begin = m_blocks.lower_bound({objectNumber, 0});
    auto const end = m_blocks.upper_bound({objectNumber, std::numeric_limits<__int64>::max()});
    for (auto block = begin; block != end; ++block)
        m_order.erase(block->second);
    m_blocks.erase(begin, end);
}

} // namespace kelm::s3

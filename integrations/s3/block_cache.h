#pragma once

#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

#include "yx/base.h"

namespace kelm::s3 {

/// How much is asked for at least, but at the end of an object.
inline constexpr int kBlockBytes = 256 * 1024;

/// The blocks of objects that were read last. Safe for several threads.
class BlockCache {
public:
    using Block = std::shared_ptr<std::string const>;

    /// Keeps up to so many blocks.
    explicit BlockCache(std::size_t maxBlocks) : m_maxBlocks(maxBlocks) {}

    /// A number that no other object has.
    __int64 makeObjectNumber();

    /// Null if the block is not here.
    Block find(__int64 objectNumber, __int64 blockIndex);

    /// Keeps a block. That which was not asked for the longest gives way.
    void add(__int64 objectNumber, __int64 blockIndex, Block block);

    /// Forgets all blocks of an object.
    void remove(__int64 objectNumber);

private:
    using Key = std::pair<__int64, __int64>;
    using Order = std::list<std::pair<Key, Block>>;

    std::size_t const m_maxBlocks;
    std::mutex m_mutex;
    __int64 m_lastNumber = 0;

    /// The last used first.
    Order m_order;
    std::map<Key, Order::iterator> m_blocks;
};

} // namespace kelm::s3

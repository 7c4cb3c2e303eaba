#include "host/check/block_reader.h"

#include <algorithm>
#include <cstring>

#include "yx/error.h"

namespace kelm::host {

BlockReader::BlockReader(yx::IIOStream& stream)
    : m_stream(yx::makeObject<yx::COptimizingIOStream>(&stream)),
      m_blockBytes(std::max(kBlockBytes, m_stream->getBestPerformancePositionAlign())) {}

void BlockReader::read(__int64 positionBytes, unsigned char* target, int sizeBytes) {
    Block* block = find(positionBytes, sizeBytes);
    if (!block)
        block = tryFetch(positionBytes);
    if (!block || !block->holds(positionBytes, sizeBytes)) {
        // Large, across the end of a block, or beside something that cannot be read.
        m_stream->seek(positionBytes);
        m_stream->read(target, sizeBytes);
        return;
    }
    std::memcpy(target, block->data.get() + (positionBytes - block->positionBytes),
                static_cast<std::size_t>(sizeBytes));
}

BlockReader::Block* BlockReader::find(__int64 positionBytes, int sizeBytes) {
    for (Block& block : m_blocks) {
        if (block.holds(positionBytes, sizeBytes)) {
            block.lastUse = ++m_useCount;
            return &block;
        }
    }
    return nullptr;
}

/// Null if the block cannot be read as a whole; what is asked for of it may be readable.
BlockReader::Block* BlockReader::tryFetch(__int64 positionBytes) {
    __int64 const start = positionBytes / m_blockBytes * m_blockBytes;
    if (m_unreadable.contains(start))
        return nullptr;
    auto block = std::find_if(m_blocks.begin(), m_blocks.end(), [start](Block const& each) {
        return each.positionBytes >= 0 && each.getEnd() == start;
    });
    int wantedBytes = m_blockBytes;
    if (block == m_blocks.end()) {
        block =
            std::min_element(m_blocks.begin(), m_blocks.end(),
                             [](Block const& l, Block const& r) { return l.lastUse < r.lastUse; });
    } else {
        wantedBytes *= kBlocksInSequence;
    }
    block->positionBytes = -1;
    block->lastUse = ++m_useCount;
    try {
        block->data.reset();
        block->data =
            std::make_unique_for_overwrite<unsigned char[]>(static_cast<std::size_t>(wantedBytes));
        m_stream->seek(start);
        block->sizeBytes = m_stream->readLax(block->data.get(), wantedBytes);
        block->positionBytes = start;
    } catch (yx::CIOError const&) {
        m_unreadable.insert(start);
        return nullptr;
    }
    return &*block;
}

} // namespace kelm::host

#pragma once

#include <array>
#include <memory>
#include <set>

#include "yx/optimizing_io_stream.h"

namespace kelm::host {

/// Reads small pieces of a file that lie all over it, such as tables and the beginnings of records,
/// by whole blocks, so that few requests reach the file. A few blocks are kept, since tables of
/// several kinds are read side by side. For files that nobody changes meanwhile.
class BlockReader {
public:
    /// The size of a block, and where it begins; more if the stream says that it is good at that.
    static constexpr int kBlockBytes = 256 * 1024;

    /// So many blocks are read with one request where a block follows one that was read.
    static constexpr int kBlocksInSequence = 4;

    /// `stream` is open for reading.
    explicit BlockReader(yx::IIOStream& stream);

    /// Reads exactly `sizeBytes` bytes. Errors are those of the stream for this range; what cannot
    /// be read around it is none.
    void read(__int64 positionBytes, unsigned char* target, int sizeBytes);

private:
    /// Runs through the file, and takes the place of the one before it.
    struct Block {
        std::unique_ptr<unsigned char[]> data;
        __int64 positionBytes = -1;
        int sizeBytes = 0;
        unsigned long long lastUse = 0;

        __int64 getEnd() const { return positionBytes + sizeBytes; }
        bool holds(__int64 start, int size) const {
            return positionBytes >= 0 && start >= positionBytes && start + size <= getEnd();
        }
    };

    Block* find(__int64 positionBytes, int sizeBytes);
    Block* tryFetch(__int64 positionBytes);

    yx::P<yx::COptimizingIOStream> m_stream;
    int m_blockBytes;
    std::array<Block, 4> m_blocks;

    /// Where blocks begin that cannot be read as a whole. Nobody tries twice.
    std::set<__int64> m_unreadable;
    unsigned long long m_useCount = 0;
};

} // namespace kelm::host

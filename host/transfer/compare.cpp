#include "host/transfer/compare.h"

#include <algorithm>
#include <cassert>
#include <cstring>

#include "yx/buffer.h"

namespace kelm::host {

namespace {

constexpr int kChunkBytes = 65536;

/// In one step, whatever holes are known.
constexpr __int64 kMaxPassedBytes = __int64{1} << 40;

/// One side's present chunk, filled up with zeros behind its end.
class Side {
public:
    explicit Side(ContentReader& reader) : m_reader(reader), m_chunk(kChunkBytes, -1) {}

    /// Returns false at the end.
    bool readNext() {
        m_isZero = true;
        int const count = m_atEnd ? 0 : m_reader.readNext(m_chunk.getData(), kChunkBytes, m_isZero);
        assert(count >= 0 && count <= kChunkBytes);
        assert(m_doneBytes % kChunkBytes == 0 || count == 0);
        m_atEnd = count < kChunkBytes;
        m_doneBytes += count;
        if (count == 0)
            m_isZero = true;
        else if (!m_isZero)
            yx::initMemory(m_chunk.getData() + count, 0,
                           static_cast<std::size_t>(kChunkBytes - count));
        return count > 0;
    }

    /// As `ContentReader`; behind the end there are zeros.
    __int64 countZeros(__int64 maxBytes) {
        return m_atEnd ? maxBytes : m_reader.countZeros(maxBytes);
    }

    /// Whole chunks only.
    void skipZeros(__int64 bytes) {
        assert(bytes % kChunkBytes == 0);
        if (m_atEnd)
            return;
        m_reader.skipZeros(bytes);
        m_doneBytes += bytes;
    }

    bool isAtEnd() const { return m_atEnd; }

    /// Null for a chunk of zeros.
    unsigned char const* getData() const { return m_isZero ? nullptr : m_chunk.getData(); }
    __int64 getDoneBytes() const { return m_doneBytes; }

private:
    ContentReader& m_reader;
    yx::TBuffer<unsigned char> m_chunk;
    bool m_isZero = true;
    bool m_atEnd = false;
    __int64 m_doneBytes = 0;
};

/// How many bytes, in whole chunks, are known to be zeros on both sides.
__int64 countEqualZeros(Side& left, Side& right) {
    if (left.isAtEnd() && right.isAtEnd())
        return 0;
    __int64 const bytes = right.countZeros(left.countZeros(kMaxPassedBytes));
    return bytes - bytes % kChunkBytes;
}

bool isEqualChunk(unsigned char const* left, unsigned char const* right) {
    if (left && right)
        return std::memcmp(left, right, kChunkBytes) == 0;
    unsigned char const* const some = left ? left : right;
    return !some || yx::isAllZero(some, kChunkBytes);
}

void countDifferences(unsigned char const* left, unsigned char const* right,
                      __int64 chunkStartBytes, Comparison& result) {
    for (int i = 0; i < kChunkBytes; ++i) {
        unsigned char const leftByte = left ? left[i] : 0;
        unsigned char const rightByte = right ? right[i] : 0;
        if (leftByte == rightByte)
            continue;
        if (!result.firstDifferenceBytes)
            result.firstDifferenceBytes = chunkStartBytes + i;
        ++result.differingBytes;
    }
}

} // namespace

Comparison compareContent(ContentReader& left, ContentReader& right, WorkOptions const& options) {
    ProgressThrottle throttle(options.progress);
    Comparison result;
    Side leftSide(left);
    Side rightSide(right);
    __int64 const totalBytes = std::max(left.getLength(), right.getLength());
    for (__int64 chunkStartBytes = 0;; chunkStartBytes += kChunkBytes) {
        bool const haveLeft = leftSide.readNext();
        bool const haveRight = rightSide.readNext();
        if (!haveLeft && !haveRight)
            break;
        if (!isEqualChunk(leftSide.getData(), rightSide.getData()))
            countDifferences(leftSide.getData(), rightSide.getData(), chunkStartBytes, result);
        if (options.cancel)
            options.cancel->check();
        throttle.report(chunkStartBytes, totalBytes);
        // Where there are zeros, there are often more.
        if (leftSide.getData() || rightSide.getData())
            continue;
        if (__int64 const zeros = countEqualZeros(leftSide, rightSide); zeros > 0) {
            leftSide.skipZeros(zeros);
            rightSide.skipZeros(zeros);
            chunkStartBytes += zeros;
        }
    }
    result.leftBytes = leftSide.getDoneBytes();
    result.rightBytes = rightSide.getDoneBytes();
    __int64 const doneBytes = std::max(result.leftBytes, result.rightBytes);
    throttle.report(doneBytes, doneBytes);
    return result;
}

} // namespace kelm::host

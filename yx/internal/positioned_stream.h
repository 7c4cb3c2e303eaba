#pragma once

#include <memory>
#include <optional>

#include "yx/gather_out_stream.h"
#include "yx/stream.h"

namespace yx::detail {

/// The stream under a buffering layer, reached by positions and free of alignment. Internal.
///
/// Hides whether the stream can gather pieces, and what alignment of positions, lengths and memory
/// it demands: accesses that do not fit go through an aligned buffer, and a block that is written
/// in part is read first. A padded last block is cut off again at once, so the stream's length
/// never counts padding, also while that cut fails: it is then tried again by the next operation
/// that changes the stream.
class PositionedStream {
public:
    /// `out` is null for a stream that is only read; otherwise it is the same object as `in`.
    /// `access` is what that was opened for.
    PositionedStream(IInStream* in, IIOStream* out, IIOStream::Access access);

    IInStream& get() const { return *m_in; }
    bool isAligned() const { return m_positionAlign > 1 || m_bufferAlign > 1; }
    int getBestPerformancePositionAlign() const { return m_bestPerformancePositionAlign; }

    __int64 getLength() const;

    /// Reads up to `sizeBytes` bytes; fewer only at the end. Returns the count.
    int read(__int64 position, unsigned char* target, int sizeBytes);

    /// Writes pieces one behind the other, in one step if the stream can.
    void write(__int64 position, IGatherOutStream::Piece const* pieces, int count);

    /// Writes one piece behind a barrier, which may be null.
    void write(__int64 position, void const* source, int sizeBytes, IWriteBarrier* barrier);

    P<IWriteBarrier> createWriteBarrier(IWriteBarrier* previous);
    void flush();
    void setLength(__int64 length);
    void close();

    /// Whether there is data at `position`, waiting for it for up to `timeLimit` milliseconds.
    bool waitReadable(__int64 position, int timeLimit) const;

private:
    void queryAlignment();
    unsigned char* getBounceBuffer();
    bool fits(__int64 position, void const* data, int sizeBytes) const;
    __int64 alignDown(__int64 position) const;
    __int64 alignUp(__int64 position) const;

    int readRaw(__int64 position, unsigned char* target, int sizeBytes);
    void writeRaw(__int64 position, void const* source, int sizeBytes, IWriteBarrier* barrier);
    int readBounced(__int64 position, unsigned char* target, int sizeBytes);
    void writeBounced(__int64 position, unsigned char const* source, int sizeBytes,
                      IWriteBarrier* barrier);

    /// Reads a block of which only a part will be written; what the stream lacks of it is zero.
    void loadEdge(__int64 blockPosition, unsigned char* block);

    /// Cuts off the padding that an earlier write left, if it did.
    void cutPadding();

    P<IInStream> m_in;
    P<IIOStream> m_out;

    /// The same object as `m_out`; null if it cannot gather.
    IGatherOutStream* m_gather = nullptr;

    int m_positionAlign = 1;
    int m_bufferAlign = 1;
    int m_bestPerformancePositionAlign = 1;
    std::unique_ptr<unsigned char[]> m_bounceStorage;

    /// In `m_bounceStorage`, aligned; null until it is needed.
    unsigned char* m_bounceBuffer = nullptr;
    int m_bounceSizeBytes = 0;

    /// The length without padding, while the stream may have padding at its end.
    std::optional<__int64> m_lengthToRestore;
};

} // namespace yx::detail

#pragma once

#include <memory>

#include "yx/stream.h"

namespace yx {

namespace detail {
class StreamBuffering;
}

/// A read-ahead layer for streams that are read in small pieces; `COptimizingIOStream` adds the
/// writing half. Do not use it where others change the data while it is read.
///
/// - Reads of 64 KiB and more pass through without a copy.
/// - Smaller reads in sequence are served from read-ahead windows: four, so that alternating
///   between places does not thrash, of 1 MiB together at most. They grow from 4 KiB on as a
///   sequence goes on; a scattered read fetches 4 KiB, or just itself if it is longer.
/// - The stream under it may demand alignment (`IAlignedStreamBase`); this one has no demands.
/// - `read` past the end is `CIOError` `UnexpectedEnd`, "Unexpected end of the stream.", with
///   "uri", "position" and "bytesToRead"; like every failed read it leaves the position where it
///   was. `readLax` returns what there is.
///
/// What others write to the same file is not seen in what was read ahead before; a range that is
/// locked through `lockRange` is read anew. Serves one thread at a time.
class YX_API COptimizingInStream : public CBase, public virtual IAlignedInStream {
public:
    /// Holds a reference to `stream`, which must not be null and must have no other user as long
    /// as this object lives, since its position moves with every access.
    explicit COptimizingInStream(IInStream* stream);

    /// A copy is a second handle on the same layer: both share the stream, what is buffered, and
    /// the position, and when one is closed, so is the other.
    COptimizingInStream(COptimizingInStream const&) = default;
    COptimizingInStream& operator=(COptimizingInStream const&) = default;
    ~COptimizingInStream() override;

    /// That of the stream under it, with what is still held back here. The first answer for a file
    /// of the operating system that was just opened for reading is its length at that time.
    __int64 getLength() const override;

    /// This layer's own position.
    __int64 getPosition() const override;
    CURI getURI() override;
    void seek(__int64 position) override;
    P<IStreamLock> lockRange(__int64 position, __int64 length, LockType type) override;

    /// Closes the stream under it, too. After a failure this one is still open, and `close` can be
    /// tried again.
    void close() override;

    void read(void* target, int sizeBytes) override;
    int readLax(void* target, int sizeBytes) override;

    /// What a window holds from the position on, else what the stream under it has available.
    int readAvailable(void* target, int sizeBytes) override;

    bool waitReadable(int timeLimit) const override;
    bool isEndOfStream() const override;
    int isEndOfStream_NonBlocking() const override;

    /// Both 1.
    int getPositionAlign() override;
    int getBufferAlign() override;

    /// That of the stream under it, 4096 at least.
    int getBestPerformancePositionAlign() override;

protected:
    /// For the class that adds writing.
    explicit COptimizingInStream(std::unique_ptr<detail::StreamBuffering> buffering);

    /// What both halves work on, shared with copies.
    std::shared_ptr<detail::StreamBuffering> m_buffering;
};

} // namespace yx

#pragma once

#include "yx/access_stream.h"
#include "yx/optimizing_in_stream.h"

namespace yx {

/// A buffering layer for streams that are read and written in small pieces: it holds writes back
/// and reads ahead. `COptimizingInStream` describes the reading half. Do not use it where each
/// write must reach the file at once, or where others change the same file meanwhile.
///
/// - Writes of 64 KiB and more pass through without a copy. So do bytes given to `writeKeepBuffer`
///   from 16 KiB on; what is held back just before them goes with them in one step, if the stream
///   under it is an `IGatherOutStream`. Nothing refers to a caller's bytes after the call.
/// - Other writes are held back, adjacent ones gathered, at up to eight places and up to 1 MiB
///   together. They reach the stream by `flush`, `close`, `createWriteBarrier`, the destructor,
///   when that room is taken, and before a write that passes through. Then bytes that make the
///   file longer go first, since the others may point to them, and the others in the order in
///   which their places were first written to.
/// - Every read sees every earlier write, and `getLength` counts what is still held back.
/// - A failure to write back keeps the bytes, and the next operation that writes back tries them
///   again. An operation that fails so has not begun its own work, and the position stays.
/// - After a failed write that passes through, its range holds whatever the stream under it made
///   of it, and reads show that.
/// - A position or length above 2^62 - 1 cannot be written to: `CIOError` `NoSpace`, with "uri",
///   "position" and "bytesToWrite".
/// - If the stream under it was opened for reading and implements `IAccessStream`, as the streams
///   of the framework's file systems do, every write is `CIOError` `NotAllowed` at once.
class YX_API COptimizingIOStream : public COptimizingInStream,
                                   public virtual IIOStream,
                                   public virtual IAccessStream {
public:
    /// As for `COptimizingInStream`. `close`, inherited from there, first writes back, and fails
    /// with all bytes kept if it cannot.
    explicit COptimizingIOStream(IIOStream* stream);

    /// The same, for one who knows that he will go on reading where he begins: a first small read
    /// fetches `firstFetchBytes`, at least 4 KiB, instead of 4 KiB.
    COptimizingIOStream(IIOStream* stream, int firstFetchBytes);

    /// Copies share all, as for `COptimizingInStream`. An assignment first writes back what is held
    /// here; a failure to do so passes, and nothing is assigned.
    COptimizingIOStream(COptimizingIOStream const&) = default;
    COptimizingIOStream& operator=(COptimizingIOStream const& other);

    /// Writes back, without a flush of the stream under it. A failure goes to
    /// `onExceptionInDestructorIgnored`; to see it, call `close` or `flush` first.
    ~COptimizingIOStream() override;

    /// With a barrier, the bytes pass through behind all earlier ones, whatever their size.
    void write(void const* source, int sizeBytes, IWriteBarrier* barrier) override;
    void writeKeepBuffer(TConstBufferSlice<unsigned char> const& slice,
                         IWriteBarrier* barrier) override;

    /// Writes back and returns a barrier of the stream under it.
    P<IWriteBarrier> createWriteBarrier(IWriteBarrier* previous) override;

    /// Writes back, then flushes the stream under it.
    void flush() override;

    /// Acts on the stream under it at once, and drops what is held back behind `length`. A length
    /// below 0 is `CIOError` `BadPosition` with "uri" and "length".
    void setLength(__int64 length) override;

    /// That of the stream under it; `ReadWrite` if that does not implement `IAccessStream`.
    IIOStream::Access getAccess() const override;
};

} // namespace yx

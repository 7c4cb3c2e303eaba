#pragma once

#include "yx/base.h"
#include "yx/buffer.h"
#include "yx/uri.h"

namespace yx {

/// An opaque token that orders later writes behind earlier ones.
class YX_API IWriteBarrier : public virtual IBase {};

/// A barrier that orders nothing, for streams whose writes are in order anyway.
class YX_API CDummyWriteBarrier : public CBase, public virtual IWriteBarrier {};

/// Holds a locked byte range for as long as it lives.
class YX_API IStreamLock : public virtual IBase {};

/// What all streams have in common. Positions and lengths are in bytes.
class YX_API IStreamBase : public virtual IBase {
public:
    /// Whether others may hold a lock on the range at the same time.
    enum LockType {
        Shared = 1,    ///< with other shared holders
        Exclusive = 2, ///< alone
    };

    /// How many bytes there are.
    virtual __int64 getLength() const = 0;

    /// Where the next transfer starts.
    virtual __int64 getPosition() const = 0;

    /// What the stream is open on; every error reports it under "uri".
    virtual CURI getURI() = 0;

    /// Sets the position; it may lie past the end. Below 0 is `CIOError` `BadPosition`.
    virtual void seek(__int64 position) = 0;

    /// Locks a byte range, shared or alone, against other holders, in this process and in others.
    /// Fails at once with `CIOError` `AccessDenied` when another holder is in the way; the ranges
    /// that are locked are then as they were.
    ///
    /// A range is held as long as any token on it lives. Ranges of one stream do not conflict;
    /// where they overlap, the stronger lock counts until its token goes.
    virtual P<IStreamLock> lockRange(__int64 position, __int64 length, LockType type) = 0;

    /// Ends the stream; every operation after it but `close` and `getURI` is `CIOError` `Closed`.
    /// The last release closes too, if this was not done.
    virtual void close() = 0;
};

/// A stream that can be read.
class YX_API IInStream : public virtual IStreamBase {
public:
    /// Reads exactly `sizeBytes` bytes and moves the position on. Fewer bytes before the end of the
    /// data are `CIOError` `UnexpectedEnd`.
    virtual void read(void* target, int sizeBytes) = 0;

    /// Reads up to `sizeBytes` bytes and returns the count; fewer only at the end of the data.
    virtual int readLax(void* target, int sizeBytes) = 0;

    /// Reads what can be had without blocking and returns the count.
    virtual int readAvailable(void* target, int sizeBytes) = 0;

    /// Waits for data, `timeLimit` milliseconds at most; whether there is some.
    virtual bool waitReadable(int timeLimit) const = 0;

    /// Whether the position is at or past the end.
    virtual bool isEndOfStream() const = 0;

    /// The same without blocking, as 0 or 1.
    virtual int isEndOfStream_NonBlocking() const = 0;
};

/// A stream that can be written.
class YX_API IOutStream : public virtual IStreamBase {
public:
    /// Writes all the bytes at the position and moves it on. `barrier` may be null. A stream that
    /// is open for reading only is `CIOError` `NotAllowed`, a full device `NoSpace`.
    virtual void write(void const* source, int sizeBytes, IWriteBarrier* barrier) = 0;

    /// The same for bytes that the caller leaves unchanged, so that the stream can pass them on
    /// without a copy.
    virtual void writeKeepBuffer(TConstBufferSlice<unsigned char> const& slice,
                                 IWriteBarrier* barrier) = 0;

    /// A token that orders later writes behind all writes so far and behind `previous`, which may
    /// be null.
    virtual P<IWriteBarrier> createWriteBarrier(IWriteBarrier* previous) = 0;

    /// Pushes everything written so far down; for files, see the file system that made the stream.
    virtual void flush() = 0;

    /// Truncates, or extends with zeros. The position stays. Errors are those of `write`, and
    /// `NotSupported` where the length is fixed.
    virtual void setLength(__int64 length) = 0;
};

/// A stream that can be read and, unless it was opened read-only, written.
class YX_API IIOStream : public virtual IInStream, public virtual IOutStream {
public:
    /// What a file is opened for.
    enum Access {
        ReadOnly = 1,  ///< reading
        ReadWrite = 3, ///< reading and writing
    };
};

/// What a stream demands and likes of positions and buffers, in bytes; 1 for no demand.
class YX_API IAlignedStreamBase : public virtual IBase {
public:
    /// Positions and sizes, and addresses of buffers, must be multiples of these.
    virtual int getPositionAlign() = 0;
    virtual int getBufferAlign() = 0;

    /// Transfers are fastest at multiples of this.
    virtual int getBestPerformancePositionAlign() = 0;
};

/// A stream with such demands.
class YX_API IAlignedInStream : public virtual IInStream, public virtual IAlignedStreamBase {};

} // namespace yx

#pragma once

#include "yx/access_stream.h"
#include "yx/gather_out_stream.h"
#include "yx/stream.h"

namespace yx {

/// What streams on files have in common, wherever the files are: a position of their own, the
/// checks that come before each operation, and the operations that others are made of. Internal.
///
/// Nothing is buffered, and `seek` costs nothing. Failed transfers leave the position alone.
class CFileStream : public CBase,
                    public virtual IIOStream,
                    public virtual IGatherOutStream,
                    public virtual IAccessStream {
public:
    CFileStream(CFileStream const&) = delete;
    CFileStream& operator=(CFileStream const&) = delete;

    __int64 getPosition() const final;
    CURI getURI() final;
    void seek(__int64 position) final;

    /// A shared lock needs no write access, an exclusive one is `NotAllowed` without. A `length`
    /// below 1 is `BadPosition`.
    P<IStreamLock> lockRange(__int64 position, __int64 length, LockType type) final;

    void read(void* target, int sizeBytes) final;
    int readLax(void* target, int sizeBytes) final;
    int readAvailable(void* target, int sizeBytes) final;
    bool waitReadable(int timeLimit) const final;
    bool isEndOfStream() const final;
    int isEndOfStream_NonBlocking() const final;

    void write(void const* source, int sizeBytes, IWriteBarrier* barrier) final;
    void writeKeepBuffer(TConstBufferSlice<unsigned char> const& slice,
                         IWriteBarrier* barrier) final;
    P<IWriteBarrier> createWriteBarrier(IWriteBarrier* previous) final;
    void writePieces(__int64 position, Piece const* pieces, int count) final;
    Access getAccess() const final { return m_access; }

protected:
    /// `className` names the class in errors about arguments; it is not copied.
    CFileStream(char const* className, CURI const& uri, Access access);

    CURI const& uri() const { return m_uri; }
    bool isWritable() const { return m_access == ReadWrite; }
    void requireOpen() const;
    void requireWritable() const;

private:
    virtual bool isOpen() const = 0;

    // From here on the stream is open, and what is asked for was checked.

    /// Reads up to `sizeBytes` bytes; fewer only at the end. Returns the count.
    virtual int readAt(__int64 position, void* target, int sizeBytes) const = 0;

    /// Writes all pieces, which have `sizeBytes` bytes together.
    virtual void writeAt(__int64 position, Piece const* pieces, int count, __int64 sizeBytes) = 0;

    virtual P<IStreamLock> lockAt(__int64 position, __int64 length, bool exclusive) = 0;

    int readChecked(char const* operation, void* target, int sizeBytes) const;
    void requireSize(char const* operation, int sizeBytes) const;

    char const* m_className;
    CURI m_uri;
    Access m_access;
    __int64 m_position = 0;
};

} // namespace yx

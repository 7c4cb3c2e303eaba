#pragma once

#include <vector>

#include "yx/stream.h"

namespace kelm::host {

/// Bytes that a file is shown to have at a place, instead of its own. All streams on the file
/// share one of these.
struct Overlay : public yx::CBase {
    /// Where the bytes begin in the file.
    __int64 positionBytes = 0;

    /// What the file is shown to hold there.
    std::vector<unsigned char> bytes;
};

/// A stream that shows the bytes of an overlay in the place of the file's own. Writes pass to the
/// file, and the overlay takes them too, so that every stream reads what was written last. All else
/// is the stream's below.
class OverlaidStream : public yx::CBase, public virtual yx::IIOStream {
public:
    /// Shows the file of `stream` with what `overlay` holds, now and later.
    OverlaidStream(yx::P<yx::IIOStream> stream, yx::P<Overlay> overlay);

    __int64 getLength() const override { return m_stream->getLength(); }
    __int64 getPosition() const override { return m_stream->getPosition(); }
    yx::CURI getURI() override { return m_stream->getURI(); }
    void seek(__int64 position) override { m_stream->seek(position); }
    yx::P<yx::IStreamLock> lockRange(__int64 position, __int64 length, LockType type) override {
        return m_stream->lockRange(position, length, type);
    }
    void close() override { m_stream->close(); }

    void read(void* target, int sizeBytes) override;
    int readLax(void* target, int sizeBytes) override;
    int readAvailable(void* target, int sizeBytes) override;
    bool waitReadable(int timeLimit) const override { return m_stream->waitReadable(timeLimit); }
    bool isEndOfStream() const override { return m_stream->isEndOfStream(); }
    int isEndOfStream_NonBlocking() const override { return m_stream->isEndOfStream_NonBlocking(); }

    void write(void const* source, int sizeBytes, yx::IWriteBarrier* barrier) override;
    void writeKeepBuffer(yx::TConstBufferSlice<unsigned char> const& slice,
                         yx::IWriteBarrier* barrier) override;
    yx::P<yx::IWriteBarrier> createWriteBarrier(yx::IWriteBarrier* previous) override {
        return m_stream->createWriteBarrier(previous);
    }
    void flush() override { m_stream->flush(); }
    void setLength(__int64 length) override { m_stream->setLength(length); }

private:
    void show(__int64 positionBytes, void* target, int sizeBytes) const;
    void take(__int64 positionBytes, void const* source, int sizeBytes);

    yx::P<yx::IIOStream> m_stream;
    yx::P<Overlay> m_overlay;
};

} // namespace kelm::host

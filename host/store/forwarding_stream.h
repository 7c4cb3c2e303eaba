#pragma once

#include "yx/stream.h"

namespace kelm::host {

/// Passes every operation on to another stream. It is the base of streams that change or watch some
/// operations. It passes on neither gathered writes nor demands on alignment; a class that wants
/// them adds the interfaces.
class ForwardingStream : public yx::CBase, public virtual yx::IIOStream {
public:
    /// Passes on to `stream`, which must not be null.
    explicit ForwardingStream(yx::P<yx::IIOStream> stream);

    /// The stream that everything is passed to.
    yx::P<yx::IIOStream> const& getForwarded() const { return m_stream; }

    __int64 getLength() const override { return m_stream->getLength(); }
    __int64 getPosition() const override { return m_stream->getPosition(); }
    yx::CURI getURI() override { return m_stream->getURI(); }
    void seek(__int64 position) override { m_stream->seek(position); }
    yx::P<yx::IStreamLock> lockRange(__int64 position, __int64 length, LockType type) override {
        return m_stream->lockRange(position, length, type);
    }
    void close() override { m_stream->close(); }

    void read(void* target, int sizeBytes) override { m_stream->read(target, sizeBytes); }
    int readLax(void* target, int sizeBytes) override {
        return m_stream->readLax(target, sizeBytes);
    }
    int readAvailable(void* target, int sizeBytes) override {
        return m_stream->readAvailable(target, sizeBytes);
    }
    bool waitReadable(int timeLimit) const override { return m_stream->waitReadable(timeLimit); }
    bool isEndOfStream() const override { return m_stream->isEndOfStream(); }
    int isEndOfStream_NonBlocking() const override { return m_stream->isEndOfStream_NonBlocking(); }

    void write(void const* source, int sizeBytes, yx::IWriteBarrier* barrier) override {
        m_stream->write(source, sizeBytes, barrier);
    }
    void writeKeepBuffer(yx::TConstBufferSlice<unsigned char> const& slice,
                         yx::IWriteBarrier* barrier) override {
        m_stream->writeKeepBuffer(slice, barrier);
    }
    yx::P<yx::IWriteBarrier> createWriteBarrier(yx::IWriteBarrier* previous) override {
        return m_stream->createWriteBarrier(previous);
    }
    void flush() override { m_stream->flush(); }
    void setLength(__int64 length) override { m_stream->setLength(length); }

protected:
    /// The same, for those that override.
    yx::P<yx::IIOStream> const& getTarget() const { return m_stream; }

    /// Lets the other stream go, in the destructor of one that overrides.
    void dropTarget() { m_stream.reset(); }

private:
    yx::P<yx::IIOStream> m_stream;
};

} // namespace kelm::host

#include "host/store/sync_watch.h"

#include <cassert>
#include <exception>

#include "yx/gather_out_stream.h"

namespace kelm::host {

class SyncWatch::Memory {
public:
    bool hasFailure() const { return static_cast<bool>(m_failure); }
    void verifyNone() const {
        if (m_failure)
            std::rethrow_exception(m_failure);
    }

    /// Keeps the exception that is being handled, if it is the first.
    void keepCurrent() {
        if (!m_failure)
            m_failure = std::current_exception();
        assert(m_failure);
    }

private:
    std::exception_ptr m_failure;
};

namespace {

/// Passes everything on, and looks at what `flush` meets.
class WatchedStream : public yx::CBase,
                      public virtual yx::IIOStream,
                      public virtual yx::IAlignedStreamBase {
public:
    WatchedStream(yx::P<yx::IIOStream> const& stream, std::shared_ptr<SyncWatch::Memory> memory)
        : m_stream(stream),
          m_aligned(dynamic_cast<yx::IAlignedStreamBase*>(stream.get())),
          m_memory(std::move(memory)) {
        assert(m_stream && m_memory);
    }

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
        m_hasWritten = true;
        m_stream->write(source, sizeBytes, barrier);
    }
    void writeKeepBuffer(yx::TConstBufferSlice<unsigned char> const& slice,
                         yx::IWriteBarrier* barrier) override {
        m_hasWritten = true;
        m_stream->writeKeepBuffer(slice, barrier);
    }
    yx::P<yx::IWriteBarrier> createWriteBarrier(yx::IWriteBarrier* previous) override {
        return m_stream->createWriteBarrier(previous);
    }
    void setLength(__int64 length) override {
        m_hasWritten = true;
        m_stream->setLength(length);
    }

    void flush() override {
        if (m_hasWritten)
            m_memory->verifyNone();
        try {
            m_stream->flush();
        } catch (...) {
            m_memory->keepCurrent();
            throw;
        }
        assert(!m_hasWritten || !m_memory->hasFailure());
        m_hasWritten = false;
    }

    int getPositionAlign() override { return m_aligned ? m_aligned->getPositionAlign() : 1; }
    int getBufferAlign() override { return m_aligned ? m_aligned->getBufferAlign() : 1; }
    int getBestPerformancePositionAlign() override {
        return m_aligned ? m_aligned->getBestPerformancePositionAlign() : 1;
    }

protected:
    yx::P<yx::IIOStream> m_stream;
    bool m_hasWritten = false;

private:
    /// The same object as `m_stream`; null if it demands nothing.
    yx::IAlignedStreamBase* m_aligned;
    std::shared_ptr<SyncWatch::Memory> m_memory;
};

/// The same for a stream that can gather.
class WatchedGatherStream : public WatchedStream, public virtual yx::IGatherOutStream {
public:
    using WatchedStream::WatchedStream;

    void writePieces(__int64 position, Piece const* pieces, int count) override {
        m_hasWritten = true;
        dynamic_cast<yx::IGatherOutStream&>(*m_stream).writePieces(position, pieces, count);
    }
};

} // namespace

SyncWatch::SyncWatch(yx::IFileSystem* fileSystem)
    : m_fileSystem(fileSystem), m_memory(std::make_shared<Memory>()) {
    assert(fileSystem);
}

void SyncWatch::verifyNoneFailed() const {
    m_memory->verifyNone();
}

yx::P<yx::IIOStream> SyncWatch::openFile(yx::CURI const& uri, yx::IIOStream::Access access,
                                         unsigned int* reserved) {
    yx::P<yx::IIOStream> const stream = m_fileSystem->openFile(uri, access, reserved);
    if (access == yx::IIOStream::ReadOnly)
        return stream;
    if (dynamic_cast<yx::IGatherOutStream*>(stream.get()))
        return yx::makeObject<WatchedGatherStream>(stream, m_memory);
    return yx::makeObject<WatchedStream>(stream, m_memory);
}

bool SyncWatch::fileExists(yx::CURI const& uri) {
    return m_fileSystem->fileExists(uri);
}

void SyncWatch::deleteFile(yx::CURI const& uri, bool ignoreMissing) {
    m_fileSystem->deleteFile(uri, ignoreMissing);
}

void SyncWatch::moveFile(yx::CURI const& from, yx::CURI const& to) {
    host::moveFile(m_fileSystem.get(), from, to);
}

} // namespace kelm::host

#include "host/store/sync_watch.h"

#include <cassert>
#include <exception>

#include "host/store/forwarding_stream.h"
#include "yx/gather_out_stream.h"
#include "yx/native_stream.h"

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
class WatchedStream : public ForwardingStream,
                      public virtual yx::IAlignedStreamBase,
                      public virtual yx::INativeStream {
public:
    WatchedStream(yx::P<yx::IIOStream> const& stream, std::shared_ptr<SyncWatch::Memory> memory)
        : ForwardingStream(stream),
          m_aligned(dynamic_cast<yx::IAlignedStreamBase*>(stream.get())),
          m_native(dynamic_cast<yx::INativeStream*>(stream.get())),
          m_memory(std::move(memory)) {
        assert(m_memory);
    }

    void write(void const* source, int sizeBytes, yx::IWriteBarrier* barrier) override {
        m_hasWritten = true;
        getTarget()->write(source, sizeBytes, barrier);
    }
    void writeKeepBuffer(yx::TConstBufferSlice<unsigned char> const& slice,
                         yx::IWriteBarrier* barrier) override {
        m_hasWritten = true;
        getTarget()->writeKeepBuffer(slice, barrier);
    }
    void setLength(__int64 length) override {
        m_hasWritten = true;
        getTarget()->setLength(length);
    }

    void flush() override {
        if (m_hasWritten)
            m_memory->verifyNone();
        else if (m_isFlushed)
            return;
        try {
            getTarget()->flush();
        } catch (...) {
            m_memory->keepCurrent();
            throw;
        }
        assert(!m_hasWritten || !m_memory->hasFailure());
        m_hasWritten = false;
        m_isFlushed = true;
    }

    int getFileDescriptor() const override { return m_native ? m_native->getFileDescriptor() : -1; }

    int getPositionAlign() override { return m_aligned ? m_aligned->getPositionAlign() : 1; }
    int getBufferAlign() override { return m_aligned ? m_aligned->getBufferAlign() : 1; }
    int getBestPerformancePositionAlign() override {
        return m_aligned ? m_aligned->getBestPerformancePositionAlign() : 1;
    }

protected:
    bool m_hasWritten = false;

private:
    /// Once, with nothing written behind it. The first flush of a new file, without a write, still
    /// brings its name to the device.
    bool m_isFlushed = false;

    /// The same object as the target; null if it demands nothing.
    yx::IAlignedStreamBase* m_aligned;

    /// The same; null if it is on no file of the operating system.
    yx::INativeStream const* m_native;
    std::shared_ptr<SyncWatch::Memory> m_memory;
};

/// The same for a stream that can gather.
class WatchedGatherStream : public WatchedStream, public virtual yx::IGatherOutStream {
public:
    using WatchedStream::WatchedStream;

    void writePieces(__int64 position, Piece const* pieces, int count) override {
        m_hasWritten = true;
        dynamic_cast<yx::IGatherOutStream&>(*getTarget()).writePieces(position, pieces, count);
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
    yx::P<yx::IIOStream> stream = m_fileSystem->openFile(uri, access, reserved);
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

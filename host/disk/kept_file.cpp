#include "host/disk/kept_file.h"

#include <algorithm>
#include <cassert>
#include <cstring>

#include <sys/stat.h>

#include "yx/error.h"

namespace kelm::host {

namespace {

yx::CProps propsOfTransfer(yx::CURI const& uri, __int64 positionBytes, int sizeBytes) {
    return yx::CProps()
        .add("uri", uri.toString(true))
        .add("position", yx::toString(positionBytes))
        .add("bytesToRead", yx::toString(sizeBytes));
}

} // namespace

/// All but reading is the stream's that the file is open with.
class KeptFile::Stream : public yx::CBase,
                         public virtual yx::IIOStream,
                         public virtual yx::IAccessStream,
                         public virtual yx::INativeStream,
                         public IPlaceReader {
public:
    explicit Stream(KeptFile* file) : m_file(file), m_uri(file->m_stream->getURI()) {
        ++m_file->m_streamCount;
    }
    Stream(Stream const&) = delete;
    Stream& operator=(Stream const&) = delete;
    ~Stream() override { leave(); }

    __int64 getLength() const override { return file().getLength(); }
    __int64 getPosition() const override {
        file();
        return m_position;
    }
    yx::CURI getURI() override { return m_uri; }
    void seek(__int64 position) override {
        // Which position is none, that stream says.
        if (position < 0)
            target().seek(position);
        file();
        m_position = position;
    }
    yx::P<yx::IStreamLock> lockRange(__int64 position, __int64 length, LockType type) override {
        return target().lockRange(position, length, type);
    }
    void close() override { leave(); }

    void read(void* target, int sizeBytes) override {
        int const count = file().readAt(m_position, target, sizeBytes);
        if (count < sizeBytes) {
            throw yx::CIOError(yx::CIOError::UnexpectedEnd, "Unexpected end of the stream.",
                               propsOfTransfer(m_uri, m_position, sizeBytes), nullptr);
        }
        m_position += count;
    }
    int readLax(void* target, int sizeBytes) override {
        int const count = file().readAt(m_position, target, sizeBytes);
        m_position += count;
        return count;
    }
    int readAvailable(void* target, int sizeBytes) override { return readLax(target, sizeBytes); }
    bool waitReadable(int) const override { return !isEndOfStream(); }
    bool isEndOfStream() const override { return m_position >= getLength(); }
    int isEndOfStream_NonBlocking() const override { return isEndOfStream() ? 1 : 0; }

    void write(void const* source, int sizeBytes, yx::IWriteBarrier* barrier) override {
        target().write(source, sizeBytes, barrier);
    }
    void writeKeepBuffer(yx::TConstBufferSlice<unsigned char> const& slice,
                         yx::IWriteBarrier* barrier) override {
        target().writeKeepBuffer(slice, barrier);
    }
    yx::P<yx::IWriteBarrier> createWriteBarrier(yx::IWriteBarrier* previous) override {
        return target().createWriteBarrier(previous);
    }
    void flush() override { target().flush(); }
    void setLength(__int64 length) override { target().setLength(length); }

    Access getAccess() const override { return ReadOnly; }
    int getFileDescriptor() const override { return m_file ? m_file->getFileDescriptor() : -1; }
    bool canReadPlaces() const override { return m_file && m_file->m_places; }
    int readPlace(__int64 positionBytes, void* target, int sizeBytes) const override {
        return file().m_places->readPlace(positionBytes, target, sizeBytes);
    }

private:
    KeptFile& file() const {
        if (!m_file) {
            throw yx::CIOError(yx::CIOError::Closed, "The stream is closed.",
                               yx::CProps().add("uri", m_uri.toString(true)), nullptr);
        }
        return *m_file;
    }

    yx::IIOStream& target() const { return *file().m_stream; }

    void leave() {
        if (m_file)
            --m_file->m_streamCount;
        m_file.reset();
    }

    /// Null once closed.
    yx::P<KeptFile> m_file;
    yx::CURI m_uri;
    __int64 m_position = 0;
};

KeptFile::KeptFile(yx::P<yx::IIOStream> stream)
    : m_stream(std::move(stream)),
      m_native(dynamic_cast<yx::INativeStream*>(m_stream.get())),
      m_places(findPlaceReader(*m_stream)) {}

yx::P<yx::IIOStream> KeptFile::openStream() {
    return yx::makeObject<Stream>(this);
}

void KeptFile::forgetStart() {
    m_keepsStart = false;
    m_lengthBytes.reset();
    m_start.reset();
}

int KeptFile::getFileDescriptor() const {
    return m_native ? m_native->getFileDescriptor() : -1;
}

bool KeptFile::isRegularFile() {
    struct stat status = {};
    if (::fstat(getFileDescriptor(), &status) != 0 || !S_ISREG(status.st_mode))
        return false;
    // Spares the question for it.
    m_lengthBytes = status.st_size;
    return true;
}

__int64 KeptFile::getLength() {
    if (!m_keepsStart)
        return m_stream->getLength();
    if (!m_lengthBytes)
        m_lengthBytes = m_stream->getLength();
    return *m_lengthBytes;
}

int KeptFile::readAt(__int64 positionBytes, void* target, int sizeBytes) {
    assert(positionBytes >= 0);
    int const count = copyStart(positionBytes, target, sizeBytes);
    if (count == sizeBytes)
        return count;
    m_stream->seek(positionBytes + count);
    return count +
           m_stream->readLax(static_cast<unsigned char*>(target) + count, sizeBytes - count);
}

/// What of the range lies in the start, from its beginning on.
int KeptFile::copyStart(__int64 positionBytes, void* target, int sizeBytes) {
    if (!m_keepsStart || positionBytes >= kStartBytes || sizeBytes < 1)
        return 0;
    if (!m_start) {
        try {
            auto const wanted = static_cast<int>(std::min<__int64>(getLength(), kStartBytes));
            auto start =
                std::make_unique_for_overwrite<unsigned char[]>(static_cast<std::size_t>(wanted));
            m_stream->seek(0);
            m_startBytes = m_stream->readLax(start.get(), wanted);
            m_start = std::move(start);
        } catch (yx::CIOError const&) {
            // What cannot be read of it may be what nobody asks for.
            forgetStart();
            return 0;
        }
    }
    auto const count =
        static_cast<int>(std::clamp<__int64>(m_startBytes - positionBytes, 0, sizeBytes));
    std::memcpy(target, m_start.get() + positionBytes, static_cast<std::size_t>(count));
    return count;
}

} // namespace kelm::host

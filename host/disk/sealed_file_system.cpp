#include "host/disk/sealed_file_system.h"

#include <algorithm>
#include <array>
#include <cstring>

#include "kelm/format/constants.h"

namespace kelm::host {

/// What the streams of a sealed file share.
struct SealedFileSystem::Seal {
    std::array<unsigned char, kSectorSizeBytes> sector{};
    bool isUnsealed = false;

    /// How many of the `sizeBytes` bytes from a position on lie in the sector.
    int countHeld(__int64 positionBytes, int sizeBytes) const {
        if (isUnsealed)
            return 0;
        return static_cast<int>(
            std::clamp<__int64>(kSectorSizeBytes - positionBytes, 0, sizeBytes));
    }

    unsigned char* at(__int64 positionBytes) { return sector.data() + positionBytes; }
};

/// Reads and writes the first sector of a file in memory, and everything else in the file.
class SealedFileSystem::SealedStream : public yx::CBase, public virtual yx::IIOStream {
public:
    SealedStream(yx::P<yx::IIOStream> const& stream, std::shared_ptr<Seal> seal)
        : m_stream(stream), m_seal(std::move(seal)) {}

    __int64 getLength() const override { return m_stream->getLength(); }
    __int64 getPosition() const override { return m_stream->getPosition(); }
    yx::CURI getURI() override { return m_stream->getURI(); }
    void seek(__int64 position) override { m_stream->seek(position); }
    yx::P<yx::IStreamLock> lockRange(__int64 position, __int64 length, LockType type) override {
        return m_stream->lockRange(position, length, type);
    }
    void close() override { m_stream->close(); }

    void read(void* target, int sizeBytes) override {
        __int64 const position = m_stream->getPosition();
        m_stream->read(target, sizeBytes);
        putHeld(position, target, sizeBytes);
    }
    int readLax(void* target, int sizeBytes) override {
        __int64 const position = m_stream->getPosition();
        int const count = m_stream->readLax(target, sizeBytes);
        putHeld(position, target, count);
        return count;
    }
    int readAvailable(void* target, int sizeBytes) override {
        __int64 const position = m_stream->getPosition();
        int const count = m_stream->readAvailable(target, sizeBytes);
        putHeld(position, target, count);
        return count;
    }
    bool waitReadable(int timeLimit) const override { return m_stream->waitReadable(timeLimit); }
    bool isEndOfStream() const override { return m_stream->isEndOfStream(); }
    int isEndOfStream_NonBlocking() const override { return m_stream->isEndOfStream_NonBlocking(); }

    void write(void const* source, int sizeBytes, yx::IWriteBarrier* barrier) override {
        __int64 const position = m_stream->getPosition();
        int const held = m_seal->countHeld(position, sizeBytes);
        auto const* const bytes = static_cast<unsigned char const*>(source);
        if (held > 0) {
            constexpr std::array<unsigned char, kSectorSizeBytes> kZeros{};
            m_stream->write(kZeros.data(), held, barrier);
            std::memcpy(m_seal->at(position), bytes, static_cast<std::size_t>(held));
        }
        if (held < sizeBytes)
            m_stream->write(bytes + held, sizeBytes - held, barrier);
    }
    void writeKeepBuffer(yx::TConstBufferSlice<unsigned char> const& slice,
                         yx::IWriteBarrier* barrier) override {
        if (m_seal->countHeld(m_stream->getPosition(), slice.getLength()) == 0)
            m_stream->writeKeepBuffer(slice, barrier);
        else
            write(slice.getData(), slice.getLength(), barrier);
    }
    yx::P<yx::IWriteBarrier> createWriteBarrier(yx::IWriteBarrier* previous) override {
        return m_stream->createWriteBarrier(previous);
    }
    void flush() override { m_stream->flush(); }
    void setLength(__int64 length) override {
        m_stream->setLength(length);
        if (length >= 0 && length < kSectorSizeBytes)
            std::fill(m_seal->sector.begin() + length, m_seal->sector.end(), 0);
    }

private:
    /// Puts the bytes of the sector over the zeros that were read.
    void putHeld(__int64 position, void* target, int sizeBytes) {
        if (int const held = m_seal->countHeld(position, sizeBytes); held > 0)
            std::memcpy(target, m_seal->at(position), static_cast<std::size_t>(held));
    }

    yx::P<yx::IIOStream> m_stream;
    std::shared_ptr<Seal> m_seal;
};

SealedFileSystem::SealedFileSystem(yx::IFileSystem* fileSystem, yx::CURI const& uri)
    : m_fileSystem(fileSystem), m_uri(uri.toNormalized()), m_seal(std::make_shared<Seal>()) {}

SealedFileSystem::~SealedFileSystem() = default;

void SealedFileSystem::unseal() {
    if (m_seal->isUnsealed || !m_fileSystem->fileExists(m_uri))
        return;
    unsigned int reserved = 0;
    yx::P<yx::IIOStream> const stream =
        m_fileSystem->openFile(m_uri, yx::IIOStream::ReadWrite, &reserved);
    auto const sizeBytes =
        static_cast<int>(std::min<__int64>(stream->getLength(), kSectorSizeBytes));
    stream->seek(0);
    stream->write(m_seal->sector.data(), sizeBytes, nullptr);
    stream->flush();
    stream->close();
    m_seal->isUnsealed = true;
}

yx::P<yx::IIOStream> SealedFileSystem::openFile(yx::CURI const& uri, yx::IIOStream::Access access,
                                                unsigned int* reserved) {
    yx::P<yx::IIOStream> const stream = m_fileSystem->openFile(uri, access, reserved);
    if (m_seal->isUnsealed || uri.toNormalized() != m_uri)
        return stream;
    return yx::makeObject<SealedStream>(stream, m_seal);
}

bool SealedFileSystem::fileExists(yx::CURI const& uri) {
    return m_fileSystem->fileExists(uri);
}

void SealedFileSystem::deleteFile(yx::CURI const& uri, bool ignoreMissing) {
    m_fileSystem->deleteFile(uri, ignoreMissing);
    if (uri.toNormalized() == m_uri)
        m_seal->sector.fill(0);
}

} // namespace kelm::host

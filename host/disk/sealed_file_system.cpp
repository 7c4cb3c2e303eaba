#include "host/disk/sealed_file_system.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <vector>

#include "host/store/file_names.h"
#include "host/store/forwarding_stream.h"
#include "kelm/format/constants.h"
#include "yx/memory.h"

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
class SealedFileSystem::SealedStream : public ForwardingStream {
public:
    SealedStream(yx::P<yx::IIOStream> const& stream, std::shared_ptr<Seal> seal)
        : ForwardingStream(stream), m_seal(std::move(seal)) {}

    void read(void* target, int sizeBytes) override {
        __int64 const position = getTarget()->getPosition();
        getTarget()->read(target, sizeBytes);
        putHeld(position, target, sizeBytes);
    }
    int readLax(void* target, int sizeBytes) override {
        __int64 const position = getTarget()->getPosition();
        int const count = getTarget()->readLax(target, sizeBytes);
        putHeld(position, target, count);
        return count;
    }
    int readAvailable(void* target, int sizeBytes) override {
        __int64 const position = getTarget()->getPosition();
        int const count = getTarget()->readAvailable(target, sizeBytes);
        putHeld(position, target, count);
        return count;
    }
    void write(void const* source, int sizeBytes, yx::IWriteBarrier* barrier) override {
        __int64 const position = getTarget()->getPosition();
        int const held = m_seal->countHeld(position, sizeBytes);
        auto const* const bytes = static_cast<unsigned char const*>(source);
        if (held > 0) {
            constexpr std::array<unsigned char, kSectorSizeBytes> kZeros{};
            getTarget()->write(kZeros.data(), held, barrier);
            std::memcpy(m_seal->at(position), bytes, static_cast<std::size_t>(held));
        }
        if (held < sizeBytes)
            getTarget()->write(bytes + held, sizeBytes - held, barrier);
    }
    void writeKeepBuffer(yx::TConstBufferSlice<unsigned char> const& slice,
                         yx::IWriteBarrier* barrier) override {
        if (m_seal->countHeld(getTarget()->getPosition(), slice.getLength()) == 0)
            getTarget()->writeKeepBuffer(slice, barrier);
        else
            write(slice.getData(), slice.getLength(), barrier);
    }
    void setLength(__int64 length) override {
        getTarget()->setLength(length);
        if (length >= 0 && length < kSectorSizeBytes)
            std::fill(m_seal->sector.begin() + length, m_seal->sector.end(), 0);
    }

private:
    /// Puts the bytes of the sector over the zeros that were read.
    void putHeld(__int64 position, void* target, int sizeBytes) {
        if (int const held = m_seal->countHeld(position, sizeBytes); held > 0)
            std::memcpy(target, m_seal->at(position), static_cast<std::size_t>(held));
    }

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
    yx::P<yx::IIOStream> stream = m_fileSystem->openFile(uri, access, reserved);
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

namespace {

/// Where the directories of a file with a description in it begin, behind the header and that, and
/// where they have begun in any case.
constexpr std::size_t kDirectoriesBytes = std::size_t{66} * kSectorSizeBytes;
constexpr std::size_t kDirectoriesEndBytes = 65536;
constexpr int kSealedStartBytes = 131072;

bool isText(unsigned char byte) {
    return byte >= ' ' || byte == '\n' || byte == '\r' || byte == '\t';
}

/// By the start of a file.
bool mayBeSealed(std::vector<unsigned char> const& start) {
    auto const isSet = [](unsigned char byte) { return byte != 0; };
    auto const first = std::find_if(start.begin(), start.end(), isSet);
    auto const place = static_cast<std::size_t>(first - start.begin());
    if (first == start.end() || (place >= kDirectoriesBytes && place < kDirectoriesEndBytes))
        return true;
    // The description, or its rest.
    auto const end = std::min<std::size_t>(start.size(), std::size_t{2} * kSectorSizeBytes);
    return place == kSectorSizeBytes &&
           std::all_of(first, start.begin() + static_cast<std::ptrdiff_t>(end),
                       [](unsigned char byte) { return byte == 0 || isText(byte); });
}

} // namespace

bool isSealedFile(yx::IFileSystem* fileSystem, yx::CURI const& uri) {
    if (!fileSystem->fileExists(uri) || isOtherThanFile(uri))
        return false;
    unsigned int options = yx::IFileSystem::DoNotFollowLink;
    yx::P<yx::IIOStream> const stream =
        fileSystem->openFile(uri, yx::IIOStream::ReadOnly, &options);
    std::vector<unsigned char> start(kSealedStartBytes);
    start.resize(static_cast<std::size_t>(stream->readLax(start.data(), kSealedStartBytes)));
    return mayBeSealed(start);
}

} // namespace kelm::host

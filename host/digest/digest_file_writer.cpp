#include "host/digest/digest_file_writer.h"

#include <algorithm>
#include <cassert>
#include <climits>

#include "host/store/folder_sync.h"
#include "kelm/format/internal/little_endian.h"

namespace kelm::host {

namespace {

yx::P<yx::IIOStream> makeDigestFile(yx::IFileSystem* fileSystem, yx::CURI const& uri) {
    fileSystem->deleteFile(uri, true);
    unsigned int options = 0;
    return fileSystem->openFile(uri, yx::IIOStream::ReadWrite, &options);
}

} // namespace

DigestFileWriter::DigestFileWriter(yx::IFileSystem* fileSystem, yx::CURI const& uri,
                                   DigestKeys const& keys)
    : m_stream(makeDigestFile(fileSystem, uri)), m_uri(uri), m_keys(keys), m_hasher(keys) {}

void DigestFileWriter::add(__int64 grainIndex, Digest const& digest) {
    assert(grainIndex >= m_endGrainIndex);
    __int64 const number = grainIndex / DigestHeader::kSectionGrains;
    if (number != m_sectionNumber) {
        closeSection();
        m_sectionNumber = number;
    }
    m_grains.push_back(static_cast<int>(grainIndex % DigestHeader::kSectionGrains));
    m_digests.push_back(digest);
    m_endGrainIndex = grainIndex + 1;
}

void DigestFileWriter::closeSection() {
    if (m_grains.empty())
        return;
    yx::TBuffer<unsigned char> bytes(
        DigestHeader::kSectionBitmapBytes +
            static_cast<int>(m_digests.size() * std::tuple_size_v<Digest>),
        -1);
    yx::initMemory(bytes.getData(), 0, DigestHeader::kSectionBitmapBytes);
    for (int const grain : m_grains) {
        unsigned char& byte = bytes.getData()[grain / CHAR_BIT];
        byte = static_cast<unsigned char>(byte | 1U << (grain % CHAR_BIT));
    }
    unsigned char* target = bytes.getData() + DigestHeader::kSectionBitmapBytes;
    for (Digest const& digest : m_digests)
        target = std::copy(digest.begin(), digest.end(), target);
    m_stream->seek(m_position);
    m_stream->write(bytes.getData(), bytes.getUsed(), nullptr);

    std::array<unsigned char, DigestHeader::kDirectoryEntryBytes> entry{};
    storeLittleEndian(entry.data(), static_cast<unsigned long long>(m_sectionNumber));
    storeLittleEndian(entry.data() + 8, static_cast<unsigned long long>(m_position));
    storeLittleEndian(entry.data() + 16, static_cast<unsigned int>(m_grains.size()));
    Digest const digest = m_hasher.hash(bytes.getData(), bytes.getUsed());
    std::copy(digest.begin(), digest.end(), entry.begin() + 24);
    m_directory.insert(m_directory.end(), entry.begin(), entry.end());

    m_position += bytes.getUsed();
    m_grainCount += static_cast<__int64>(m_grains.size());
    ++m_sectionCount;
    m_grains.clear();
    m_digests.clear();
}

void DigestFileWriter::finish(DigestHeader header) {
    assert(m_endGrainIndex <= header.getDiskGrainCount());
    closeSection();
    auto const directoryBytes = static_cast<int>(m_directory.size());
    header.sectionCount = m_sectionCount;
    header.directoryPosition = m_position;
    header.grainCount = m_grainCount;
    header.directoryDigest = m_hasher.hash(m_directory.data(), directoryBytes);
    std::array<unsigned char, DigestHeader::kSizeBytes> bytes{};
    m_stream->seek(0);
    m_stream->write(bytes.data(), DigestHeader::kSizeBytes, nullptr);
    m_stream->seek(m_position);
    if (directoryBytes > 0)
        m_stream->write(m_directory.data(), directoryBytes, nullptr);
    m_stream->flush();
    // Only now, in one sector: a power cut leaves a file that is not finished, or one that is.
    header.store(bytes.data(), m_keys);
    m_stream->seek(0);
    m_stream->write(bytes.data(), DigestHeader::kSizeBytes, nullptr);
    m_stream->flush();
    m_stream->close();
    syncFolder(m_uri.getParent());
}

} // namespace kelm::host

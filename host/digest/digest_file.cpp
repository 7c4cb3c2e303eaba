#include "host/digest/digest_file.h"

#include <algorithm>
#include <bit>
#include <cassert>
#include <climits>
#include <cstddef>
#include <utility>

#include "kelm/format/internal/little_endian.h"
#include "yx/error.h"

namespace kelm::host {

namespace {

constexpr int kDigestBytes = static_cast<int>(std::tuple_size_v<Digest>);

[[noreturn]] void throwCorruptPart(yx::String const& part, yx::CURI const& uri) {
    throw yx::CIOError(
        yx::CIOError::CorruptData,
        "The " + part + " of the digest file does not fit its digest: it was damaged or changed.",
        yx::CProps().add("uri", uri.toString(true)), nullptr);
}

constexpr int calcSectionBytes(int grainCount) {
    return DigestHeader::kSectionBitmapBytes + grainCount * kDigestBytes;
}

} // namespace

std::unique_ptr<DigestFile> DigestFile::open(yx::IFileSystem* fileSystem, yx::CURI const& uri,
                                             DigestKeys const& keys) {
    unsigned int options = 0;
    yx::P<yx::IIOStream> stream = fileSystem->openFile(uri, yx::IIOStream::ReadOnly, &options);
    __int64 const fileBytes = stream->getLength();
    if (fileBytes == 0)
        return nullptr;
    if (fileBytes < DigestHeader::kSizeBytes) {
        throw yx::CIOError(yx::CIOError::CorruptData, "The file is no digest file.",
                           yx::CProps().add("uri", uri.toString(true)), nullptr);
    }
    std::array<unsigned char, DigestHeader::kSizeBytes> bytes{};
    stream->read(bytes.data(), DigestHeader::kSizeBytes);
    std::optional<DigestHeader> const header =
        DigestHeader::load(bytes.data(), fileBytes, keys, uri);
    if (!header)
        return nullptr;
    std::unique_ptr<DigestFile> file(new DigestFile(std::move(stream), *header, keys));
    file->readDirectory();
    return file;
}

DigestFile::DigestFile(yx::P<yx::IIOStream> stream, DigestHeader const& header,
                       DigestKeys const& keys)
    : m_stream(std::move(stream)), m_uri(m_stream->getURI()), m_header(header), m_hasher(keys) {}

void DigestFile::readDirectory() {
    if (m_header.sectionCount > INT_MAX / DigestHeader::kDirectoryEntryBytes)
        throwBadDigestField("number of sections", m_header.sectionCount, m_uri);
    auto const count = static_cast<int>(m_header.sectionCount);
    yx::TBuffer<unsigned char> bytes(count * DigestHeader::kDirectoryEntryBytes, -1);
    m_stream->seek(m_header.directoryPosition);
    m_stream->read(bytes.getData(), bytes.getUsed());
    if (m_hasher.hash(bytes.getData(), bytes.getUsed()) != m_header.directoryDigest)
        throwCorruptPart("directory", m_uri);
    m_sections.reserve(static_cast<std::size_t>(count));
    __int64 grainCount = 0;
    for (int i = 0; i < count; ++i) {
        unsigned char const* const entry =
            bytes.getData() + std::ptrdiff_t{i} * DigestHeader::kDirectoryEntryBytes;
        Section section;
        section.number = static_cast<__int64>(loadLittleEndian<unsigned long long>(entry));
        section.position = static_cast<__int64>(loadLittleEndian<unsigned long long>(entry + 8));
        auto const sectionGrains = loadLittleEndian<unsigned int>(entry + 16);
        if (sectionGrains < 1 || sectionGrains > DigestHeader::kSectionGrains)
            throwBadDigestField("number of digests", sectionGrains, m_uri);
        section.grainCount = static_cast<int>(sectionGrains);
        std::copy_n(entry + 24, kDigestBytes, section.digest.begin());
        addSection(section);
        grainCount += section.grainCount;
    }
    __int64 const endPosition =
        m_sections.empty()
            ? DigestHeader::kSizeBytes
            : m_sections.back().position + calcSectionBytes(m_sections.back().grainCount);
    if (endPosition != m_header.directoryPosition)
        throwBadDigestField("directory position", m_header.directoryPosition, m_uri);
    if (grainCount != m_header.grainCount)
        throwBadDigestField("number of grains", m_header.grainCount, m_uri);
}

void DigestFile::addSection(Section const& section) {
    __int64 const leastNumber = m_sections.empty() ? 0 : m_sections.back().number + 1;
    __int64 const endNumber = (m_header.getDiskGrainCount() + DigestHeader::kSectionGrains - 1) /
                              DigestHeader::kSectionGrains;
    if (section.number < leastNumber || section.number >= endNumber)
        throwBadDigestField("section number", section.number, m_uri);
    __int64 const position =
        m_sections.empty()
            ? DigestHeader::kSizeBytes
            : m_sections.back().position + calcSectionBytes(m_sections.back().grainCount);
    // What follows the header without a gap can pass the end of the file only with the directory.
    if (section.position != position)
        throwBadDigestField("section position", section.position, m_uri);
    m_sections.push_back(section);
}

DigestFile::Section const* DigestFile::findSection(__int64 number) const {
    auto const found = std::lower_bound(
        m_sections.begin(), m_sections.end(), number,
        [](Section const& section, __int64 wanted) { return section.number < wanted; });
    return found == m_sections.end() ? nullptr : &*found;
}

void DigestFile::loadSection(Section const& section) {
    if (m_loadedNumber == section.number)
        return;
    m_loadedNumber = -1;
    m_loaded.setUsed(calcSectionBytes(section.grainCount));
    m_stream->seek(section.position);
    m_stream->read(m_loaded.getData(), m_loaded.getUsed());
    if (m_hasher.hash(m_loaded.getData(), m_loaded.getUsed()) != section.digest)
        throwCorruptPart("section " + yx::toString(section.number), m_uri);
    m_countsBefore.clear();
    int count = 0;
    for (int i = 0; i < DigestHeader::kSectionBitmapBytes; ++i) {
        m_countsBefore.push_back(count);
        count += std::popcount(m_loaded.getData()[i]);
    }
    // Whoever made the directory made the section too, but need not have meant well.
    if (count != section.grainCount)
        throwBadDigestField("number of digests", section.grainCount, m_uri);
    m_loadedNumber = section.number;
}

bool DigestFile::isSetInLoaded(int grainInSection) const {
    return (m_loaded.getData()[grainInSection / CHAR_BIT] >> (grainInSection % CHAR_BIT) & 1) != 0;
}

int DigestFile::countSetBefore(int grainInSection) const {
    unsigned int const byte = m_loaded.getData()[grainInSection / CHAR_BIT];
    unsigned int const lower = byte & ((1U << (grainInSection % CHAR_BIT)) - 1);
    return m_countsBefore[static_cast<std::size_t>(grainInSection / CHAR_BIT)] +
           std::popcount(lower);
}

std::optional<Digest> DigestFile::find(__int64 grainIndex) {
    assert(grainIndex >= 0);
    Section const* const section = findSection(grainIndex / DigestHeader::kSectionGrains);
    if (!section || section->number != grainIndex / DigestHeader::kSectionGrains)
        return std::nullopt;
    loadSection(*section);
    auto const grain = static_cast<int>(grainIndex % DigestHeader::kSectionGrains);
    if (!isSetInLoaded(grain))
        return std::nullopt;
    Digest digest;
    std::copy_n(m_loaded.getData() + DigestHeader::kSectionBitmapBytes +
                    std::ptrdiff_t{countSetBefore(grain)} * kDigestBytes,
                kDigestBytes, digest.begin());
    return digest;
}

__int64 DigestFile::findNext(__int64 grainIndex) {
    assert(grainIndex >= 0);
    __int64 number = grainIndex / DigestHeader::kSectionGrains;
    auto grain = static_cast<int>(grainIndex % DigestHeader::kSectionGrains);
    while (Section const* const section = findSection(number)) {
        if (section->number != number)
            grain = 0;
        loadSection(*section);
        for (; grain < DigestHeader::kSectionGrains; ++grain) {
            if (isSetInLoaded(grain))
                return section->number * DigestHeader::kSectionGrains + grain;
        }
        number = section->number + 1;
        grain = 0;
    }
    return -1;
}

} // namespace kelm::host

#include "host/check/undo_file.h"

#include <algorithm>
#include <cassert>
#include <cstring>
#include <string>
#include <string_view>

#include "host/disk/extent_creation.h"
#include "kelm/format/constants.h"
#include "kelm/format/internal/little_endian.h"
#include "kelm/kelm.h"
#include "krym/krym.h"

namespace kelm::host {

// The file, numbers with their lowest byte first:
//
//   offset  size
//        0     8  magic: "kelmundo"
//        8     4  version: 1
//       12     4  number of files
//   then for each file:
//              4  size of its URI in bytes
//              .  its URI, in UTF-8
//              8  its length in bytes before the repair
//              4  number of sectors
//     then for each sector:
//              8  its number in the file
//              4  whether it could be read, 0 or 1
//            512  its bytes before the repair
//            512  its bytes after the repair
//   at the end:
//             32  SHA-256 of all bytes before

namespace {

constexpr std::string_view kMagic = "kelmundo";
constexpr unsigned int kVersion = 1;
constexpr std::size_t kSha256Bytes = 32;

using FileBytes = std::vector<unsigned char>;

template <class Number>
void appendNumber(FileBytes& bytes, Number number) {
    bytes.resize(bytes.size() + sizeof(Number));
    storeLittleEndian(bytes.data() + bytes.size() - sizeof(Number), number);
}

void appendBytes(FileBytes& bytes, FileBytes const& more) {
    assert(more.size() == kSectorSizeBytes);
    bytes.insert(bytes.end(), more.begin(), more.end());
}

FileBytes digestOf(FileBytes const& bytes, std::size_t count) {
    krym::CDigestType_SHA256 type;
    yx::P<krym::IDigest> const digest = type.createDigest();
    constexpr std::size_t kPiece = 1 << 30;
    for (std::size_t at = 0; at < count; at += kPiece)
        digest->update(bytes.data() + at, static_cast<int>(std::min(kPiece, count - at)));
    digest->finish();
    auto const* const data = static_cast<unsigned char const*>(digest->getData());
    return {data, data + digest->getSize()};
}

/// Takes the parts of a file that is known to be whole.
class UndoParser {
public:
    explicit UndoParser(FileBytes const& bytes) : m_bytes(bytes) {}

    template <class Number>
    Number takeNumber() {
        return loadLittleEndian<Number>(take(sizeof(Number)));
    }

    FileBytes takeBytes(std::size_t count) {
        unsigned char const* const start = take(count);
        return {start, start + count};
    }

private:
    unsigned char const* take(std::size_t count) {
        if (count > m_bytes.size() - kSha256Bytes - m_at) {
            throw yx::CIOError(yx::CIOError::CorruptData, "The copy of the repair is damaged.",
                               yx::CProps(), nullptr);
        }
        m_at += count;
        return m_bytes.data() + m_at - count;
    }

    FileBytes const& m_bytes;
    std::size_t m_at = 0;
};

yx::CURI besideDisk(yx::CURI const& mainFile, char const* suffix) {
    return mainFile.getParent() << (mainFile.getName() + suffix);
}

FileBytes readAll(yx::IIOStream& stream) {
    FileBytes bytes(static_cast<std::size_t>(stream.getLength()));
    constexpr std::size_t kPiece = 1 << 30;
    stream.seek(0);
    for (std::size_t at = 0; at < bytes.size(); at += kPiece)
        stream.read(bytes.data() + at, static_cast<int>(std::min(kPiece, bytes.size() - at)));
    return bytes;
}

} // namespace

yx::CURI UndoFile::nameAtWork(yx::CURI const& mainFile) {
    return besideDisk(mainFile, ".repairing");
}

yx::CURI UndoFile::nameWhenDone(yx::CURI const& mainFile) {
    return besideDisk(mainFile, ".repaired");
}

void UndoFile::write(yx::IFileSystem* fileSystem, yx::CURI const& file) const {
    FileBytes bytes(kMagic.begin(), kMagic.end());
    appendNumber(bytes, kVersion);
    appendNumber(bytes, static_cast<unsigned int>(files.size()));
    for (File const& each : files) {
        std::string const name = each.uri.toString(true).toStdString();
        appendNumber(bytes, static_cast<unsigned int>(name.size()));
        bytes.insert(bytes.end(), name.begin(), name.end());
        appendNumber(bytes, static_cast<unsigned long long>(each.lengthBytes));
        appendNumber(bytes, static_cast<unsigned int>(each.sectors.size()));
        for (Sector const& sector : each.sectors) {
            appendNumber(bytes, static_cast<unsigned long long>(sector.sector));
            appendNumber(bytes, static_cast<unsigned int>(sector.wasReadable));
            appendBytes(bytes, sector.before);
            appendBytes(bytes, sector.after);
        }
    }
    FileBytes const digest = digestOf(bytes, bytes.size());
    bytes.insert(bytes.end(), digest.begin(), digest.end());
    fileSystem->deleteFile(file, true);
    yx::P<yx::IIOStream> const stream =
        openVMDKFileStream(fileSystem, file, yx::IIOStream::ReadWrite);
    constexpr std::size_t kPiece = 1 << 30;
    for (std::size_t at = 0; at < bytes.size(); at += kPiece) {
        stream->write(bytes.data() + at, static_cast<int>(std::min(kPiece, bytes.size() - at)),
                      nullptr);
    }
    stream->close();
    syncFile(fileSystem, file);
}

std::optional<UndoFile> UndoFile::tryRead(yx::IFileSystem* fileSystem, yx::CURI const& file) {
    if (!fileSystem->fileExists(file))
        return std::nullopt;
    FileBytes const bytes = readAll(*openVMDKFileStream(fileSystem, file, yx::IIOStream::ReadOnly));
    if (bytes.size() < kMagic.size() + kSha256Bytes ||
        !std::equal(kMagic.begin(), kMagic.end(), bytes.begin()))
        return std::nullopt;
    FileBytes const digest = digestOf(bytes, bytes.size() - kSha256Bytes);
    if (!std::equal(digest.begin(), digest.end(), bytes.end() - kSha256Bytes))
        return std::nullopt;
    UndoParser parser(bytes);
    parser.takeBytes(kMagic.size());
    if (parser.takeNumber<unsigned int>() != kVersion) {
        throw yx::CIOError(yx::CIOError::UnsupportedVersion,
                           "The copy of the repair is of another version.",
                           yx::CProps().add("uri", file.toString(true)), nullptr);
    }
    UndoFile undo;
    auto const fileCount = parser.takeNumber<unsigned int>();
    for (unsigned int i = 0; i < fileCount; ++i) {
        File each;
        FileBytes const name = parser.takeBytes(parser.takeNumber<unsigned int>());
        each.uri = yx::CURI(yx::String::fromUTF8(
            std::string_view(reinterpret_cast<char const*>(name.data()), name.size())));
        each.lengthBytes = static_cast<__int64>(parser.takeNumber<unsigned long long>());
        auto const sectorCount = parser.takeNumber<unsigned int>();
        for (unsigned int k = 0; k < sectorCount; ++k) {
            Sector sector;
            sector.sector = static_cast<__int64>(parser.takeNumber<unsigned long long>());
            sector.wasReadable = parser.takeNumber<unsigned int>() != 0;
            sector.before = parser.takeBytes(kSectorSizeBytes);
            sector.after = parser.takeBytes(kSectorSizeBytes);
            each.sectors.push_back(std::move(sector));
        }
        undo.files.push_back(std::move(each));
    }
    return undo;
}

} // namespace kelm::host

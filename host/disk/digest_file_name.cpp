#include "host/disk/digest_file_name.h"

#include <array>
#include <cstring>

#include "yx/error.h"
#include "yx/memory.h"

namespace kelm::host {

yx::CURI digestFileOf(yx::CURI const& mainFile) {
    return mainFile.getParent() << (mainFile.getName() + kDigestFileExtension);
}

bool isDigestFile(yx::IFileSystem* fileSystem, yx::CURI const& uri) {
    try {
        if (!fileSystem->fileExists(uri))
            return false;
        unsigned int options = yx::IFileSystem::DoNotFollowLink;
        yx::P<yx::IIOStream> const stream =
            fileSystem->openFile(uri, yx::IIOStream::ReadOnly, &options);
        std::array<unsigned char, kDigestFileHeaderBytes> start{};
        auto const bytes =
            static_cast<std::size_t>(stream->readLax(start.data(), kDigestFileHeaderBytes));
        return yx::isAllZero(start.data(), bytes) ||
               std::memcmp(start.data(), kDigestFileMagic, std::strlen(kDigestFileMagic)) == 0;
    } catch (yx::CError const&) {
        return false;
    }
}

void voidDigestFile(yx::IFileSystem* fileSystem, yx::CURI const& uri) {
    if (!isDigestFile(fileSystem, uri))
        return;
    try {
        unsigned int options = yx::IFileSystem::DoNotFollowLink | yx::IFileSystem::DoNotMakeFile;
        yx::P<yx::IIOStream> const stream =
            fileSystem->openFile(uri, yx::IIOStream::ReadWrite, &options);
        std::array<unsigned char, kDigestFileHeaderBytes> const zeros{};
        stream->write(zeros.data(), kDigestFileHeaderBytes, nullptr);
        stream->flush();
        stream->close();
    } catch (yx::CIOError const& error) {
        if (error.getIOCode() != yx::CIOError::AccessDenied)
            throw;
    }
}

void deleteLeftDigests(yx::IFileSystem* fileSystem, yx::CURI const& mainFile) {
    yx::CURI const file = digestFileOf(mainFile);
    if (!fileSystem->fileExists(mainFile) && isDigestFile(fileSystem, file))
        fileSystem->deleteFile(file, true);
}

} // namespace kelm::host

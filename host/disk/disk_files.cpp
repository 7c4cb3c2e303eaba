#include "host/disk/disk_files.h"

#include <array>
#include <string_view>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "host/store/file_status.h"
#include "host/store/stores.h"
#include "host/system/file_descriptor.h"
#include "kelm/format/constants.h"
#include "kelm/format/internal/little_endian.h"
#include "yx/error.h"

namespace kelm::host {

namespace {

/// The comment that a descriptor usually begins with, and what it must have, in small letters.
constexpr std::string_view kDescriptorTitle = "# disk descriptorfile";
constexpr std::string_view kDescriptorKey = "createtype";
constexpr std::size_t kProbeSizeBytes = 1024;

using Probe = std::array<char, kProbeSizeBytes>;

std::string_view readStart(std::string const& path, Probe& probe) {
    FileDescriptor const file =
        FileDescriptor::own(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    struct stat status = {};
    if (!file.isOpen() || ::fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode))
        return {};
    ssize_t const count = ::pread(file.get(), probe.data(), probe.size(), 0);
    return {probe.data(), static_cast<std::size_t>(count > 0 ? count : 0)};
}

std::string_view readStart(yx::CURI const& uri, Probe& probe) {
    std::optional<FileStatus> const status = findStatus(uri);
    if (!status || status->kind != FileKind::File)
        return {};
    try {
        unsigned int options = 0;
        yx::P<yx::IIOStream> const stream =
            storeOf(uri).openFile(uri, yx::IIOStream::ReadOnly, &options);
        int const count = stream->readLax(probe.data(), static_cast<int>(probe.size()));
        return {probe.data(), static_cast<std::size_t>(count)};
    } catch (yx::CIOError const& error) {
        error.nop();
        return {};
    }
}

bool startsWithHeaderMagic(std::string_view start) {
    if (start.size() < sizeof(unsigned int))
        return false;
    auto const magic =
        loadLittleEndian<unsigned int>(reinterpret_cast<unsigned char const*>(start.data()));
    return magic == kHeaderMagic || magic == kEncryptionExtensionHeaderMagic;
}

bool looksLikeDescriptor(std::string_view start) {
    std::string lower(start);
    for (char& character : lower) {
        if (character >= 'A' && character <= 'Z')
            character = static_cast<char>(character - 'A' + 'a');
    }
    if (lower.starts_with(kDescriptorTitle))
        return true;
    return lower.find(kDescriptorKey) != std::string::npos &&
           lower.find('\0') >= lower.find(kDescriptorKey);
}

} // namespace

bool isDiskMainFile(std::string const& path) {
    if (path.ends_with(kUnfinishedFileSuffix))
        return false;
    Probe probe;
    std::string_view const start = readStart(path, probe);
    return startsWithHeaderMagic(start) || looksLikeDescriptor(start);
}

bool isDiskMainFile(yx::IInStream& stream) {
    Probe probe;
    int const count = stream.readLax(probe.data(), static_cast<int>(probe.size()));
    std::string_view const start(probe.data(), static_cast<std::size_t>(count));
    return startsWithHeaderMagic(start) || looksLikeDescriptor(start);
}

bool isDiskMainFile(yx::CURI const& uri) {
    if (uri.getScheme() == "file")
        return isDiskMainFile(yx::toNativePath(uri).toStdString());
    if (uri.getName().toStdString().ends_with(kUnfinishedFileSuffix))
        return false;
    Probe probe;
    std::string_view const start = readStart(uri, probe);
    return startsWithHeaderMagic(start) || looksLikeDescriptor(start);
}

FileUse measureFile(yx::CURI const& uri) {
    std::optional<FileStatus> const status = findStatus(uri);
    if (!status)
        return {};
    return {true, status->lengthBytes, status->allocatedBytes};
}

} // namespace kelm::host

#include "host/disk/disk_files.h"

#include <array>
#include <string_view>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "host/system/file_descriptor.h"
#include "kelm/format/constants.h"
#include "kelm/format/internal/little_endian.h"

namespace kelm::host {

namespace {

/// The comment that a descriptor usually begins with, and what it must have, in small letters.
constexpr std::string_view kDescriptorTitle = "# disk descriptorfile";
constexpr std::string_view kDescriptorKey = "createtype";
constexpr std::size_t kProbeSizeBytes = 1024;

/// The unit of `st_blocks`, whatever the file system's own block size is.
constexpr __int64 kStatBlockSizeBytes = 512;

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

FileUse measureFile(yx::CURI const& uri) {
    struct stat status = {};
    std::string const path = yx::toNativePath(uri).toStdString();
    if (::stat(path.c_str(), &status) != 0)
        return {};
    return {true, status.st_size, status.st_blocks * kStatBlockSizeBytes};
}

} // namespace kelm::host

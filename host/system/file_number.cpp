#include "host/system/file_number.h"

#include <sys/stat.h>

namespace kelm::host {

std::optional<FileNumber> numberOfFile(std::string const& path) {
    struct stat status = {};
    if (::stat(path.c_str(), &status) != 0)
        return std::nullopt;
    return FileNumber{status.st_dev, status.st_ino};
}

std::optional<FileNumber> numberOfFile(int fileDescriptor) {
    struct stat status = {};
    if (::fstat(fileDescriptor, &status) != 0)
        return std::nullopt;
    return FileNumber{status.st_dev, status.st_ino};
}

} // namespace kelm::host

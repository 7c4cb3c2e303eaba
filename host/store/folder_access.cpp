#include "host/store/folder_access.h"

#include <cerrno>
#include <filesystem>
#include <string>

#include <fcntl.h>
#include <unistd.h>

#include "host/system/file_descriptor.h"

namespace kelm::host {

void verifyMayWriteInFolderOf(yx::CURI const& file) {
    if (file.getScheme() != "file")
        return;
    std::string const folder =
        std::filesystem::path(yx::toNativePath(file).toStdString()).parent_path().string();
    // By the rights that opening a file goes by, which are not those of who started the program.
    if (::faccessat(AT_FDCWD, folder.c_str(), W_OK | X_OK, AT_EACCESS) == 0)
        return;
    if (errno == EACCES || errno == EROFS)
        throwSystemError("Cannot write to the folder", folder);
}

} // namespace kelm::host

#include "yx/native_file_system.h"

#include <cerrno>
#include <filesystem>
#include <memory>
#include <string>
#include <system_error>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "yx/internal/file_descriptor.h"
#include "yx/internal/file_error.h"
#include "yx/internal/native_file_stream.h"
#include "yx/internal/stream_error.h"

namespace yx {

namespace {

using detail::FileAction;

std::string toPath(CURI const& uri) {
    return toNativePath(uri).toStdString();
}

/// Why a file of this kind cannot be a stream with positions, as an `errno` value; 0 if it can.
int getRefusal(mode_t mode) {
    if (S_ISDIR(mode))
        return EISDIR;
    return S_ISFIFO(mode) || S_ISSOCK(mode) ? ESPIPE : 0;
}

bool isLink(std::string const& path) {
    struct stat status {};
    return ::lstat(path.c_str(), &status) == 0 && S_ISLNK(status.st_mode);
}

/// Whether a name has no file, also because no file could have it.
bool isMissing(int errorNumber) {
    return errorNumber == ENOENT || errorNumber == ENOTDIR || errorNumber == ENAMETOOLONG;
}

/// Names the same file after a change of the current directory. Empty if that directory is gone.
std::string toAbsolute(std::string const& path) {
    if (path.starts_with('/'))
        return path;
    std::error_code error;
    return std::filesystem::absolute(path, error).string();
}

} // namespace

CNativeFileSystem::CNativeFileSystem(NativeFlush flush) : m_flush(flush) {}

P<IIOStream> CNativeFileSystem::openFile(CURI const& uri, IIOStream::Access access,
                                         unsigned int* options) {
    std::string const path = toPath(uri);
    bool const followsLinks = !options || (*options & DoNotFollowLink) == 0;
    bool const makesFile = !options || (*options & DoNotMakeFile) == 0;
    int const flags =
        (access == IIOStream::ReadWrite ? O_RDWR | (makesFile ? O_CREAT : 0) : O_RDONLY) |
        (followsLinks ? 0 : O_NOFOLLOW);
    auto descriptor =
        std::make_shared<detail::FileDescriptor>(detail::openDescriptor(path.c_str(), flags));
    int error = descriptor->get() < 0 ? -descriptor->get() : 0;
    struct stat status {};
    if (error == 0 && ::fstat(descriptor->get(), &status) != 0)
        error = errno;
    if (error == 0)
        error = getRefusal(status.st_mode);
    if (error == ELOOP && !followsLinks && isLink(path))
        throw CIOError(CIOError::NotAllowed, "The file is a symbolic link.",
                       detail::makeUriProps(uri), nullptr);
    // A socket cannot even be opened to be looked at.
    if (error == ENXIO && ::stat(path.c_str(), &status) == 0 && S_ISSOCK(status.st_mode))
        error = getRefusal(status.st_mode);
    if (error != 0)
        throw detail::makeFileError(FileAction::Open, error, detail::makeUriProps(uri));
    return makeObject<CNativeFileStream>(std::move(descriptor), status, uri, toAbsolute(path),
                                         access, m_flush);
}

bool CNativeFileSystem::fileExists(CURI const& uri) {
    struct stat status {};
    if (::stat(toPath(uri).c_str(), &status) == 0)
        return !S_ISDIR(status.st_mode);
    if (isMissing(errno))
        return false;
    throw detail::makeFileError(FileAction::Query, errno, detail::makeUriProps(uri));
}

void CNativeFileSystem::deleteFile(CURI const& uri, bool ignoreMissing) {
    if (::unlink(toPath(uri).c_str()) == 0)
        return;
    if (ignoreMissing && isMissing(errno))
        return;
    throw detail::makeFileError(FileAction::Delete, errno, detail::makeUriProps(uri));
}

} // namespace yx

#include "host/system/file_lock.h"

#include <cerrno>

#include <fcntl.h>
#include <sys/stat.h>

namespace kelm::host {

namespace {

/// Tries once. Returns 0, or the operating system's number of the error.
int tryLock(int fileDescriptor, FileLock::Type type) {
    struct flock request = {};
    request.l_type = type == FileLock::Type::Exclusive ? F_WRLCK : F_RDLCK;
    request.l_whence = SEEK_SET;
    // A length of 0 reaches to the end of the file, wherever that will be.
    while (::fcntl(fileDescriptor, F_OFD_SETLK, &request) != 0) {
        if (errno != EINTR)
            return errno;
    }
    return 0;
}

bool isRegularFile(int fileDescriptor) {
    struct stat status = {};
    return ::fstat(fileDescriptor, &status) == 0 && S_ISREG(status.st_mode);
}

} // namespace

FileLock FileLock::take(std::string const& path, Type type) {
    std::optional<FileLock> lock = tryTake(path, type);
    if (!lock) {
        throw yx::CIOError(yx::CIOError::AccessDenied, "The file is in use.",
                           yx::CProps().add("path", yx::String::fromUTF8(path)), nullptr);
    }
    return std::move(*lock);
}

std::optional<FileLock> FileLock::tryTake(std::string const& path, Type type) {
    // An exclusive lock needs a descriptor that is open for writing. Named pipes must not wait.
    int const flags = (type == Type::Exclusive ? O_RDWR : O_RDONLY) | O_CLOEXEC | O_NONBLOCK;
    FileDescriptor file = FileDescriptor::own(::open(path.c_str(), flags));
    if (!file.isOpen())
        throwSystemError("Cannot open the file to lock it", path);
    return tryTake(std::move(file), type);
}

std::optional<FileLock> FileLock::tryTake(FileDescriptor file, Type type) {
    if (!isRegularFile(file.get()))
        return FileLock();
    switch (tryLock(file.get(), type)) {
    case 0:
        return FileLock(std::move(file));
    case EAGAIN:
    case EACCES:
        return std::nullopt;
    default:
        // No locks on this file system, or none left.
        return FileLock();
    }
}

} // namespace kelm::host

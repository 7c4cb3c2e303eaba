#include "host/system/file_lock.h"

#include <cerrno>

#include <fcntl.h>
#include <sys/stat.h>

namespace kelm::host {

namespace {

/// Tries once. Returns 0, or the operating system's number of the error.
int setLock(int fileDescriptor, short type) {
    struct flock request = {};
    request.l_type = type;
    request.l_whence = SEEK_SET;
    // A length of 0 reaches to the end of the file, wherever that will be.
    while (::fcntl(fileDescriptor, F_OFD_SETLK, &request) != 0) {
        if (errno != EINTR)
            return errno;
    }
    return 0;
}

int tryLock(int fileDescriptor, FileLock::Type type) {
    return setLock(fileDescriptor, type == FileLock::Type::Exclusive ? F_WRLCK : F_RDLCK);
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

std::optional<FileLock> FileLock::tryTake(yx::P<SharedOpenFile> const& file, Type type) {
    int const error = tryLock(file->getFileDescriptor(), type);
    if (error == EAGAIN || error == EACCES)
        return std::nullopt;
    // Asked for behind the lock, so that what it also tells stays true.
    bool const isRegular = file->isRegularFile();
    if (error == 0 && !isRegular)
        setLock(file->getFileDescriptor(), F_UNLCK);
    return error == 0 && isRegular ? FileLock(file) : FileLock();
}

FileLock FileLock::hold(yx::P<yx::IBase> holder, FileIdentity file) {
    FileLock lock;
    lock.m_holder = std::move(holder);
    lock.m_heldFile = std::move(file);
    return lock;
}

FileLock::~FileLock() {
    if (m_shared && m_shared->isInUse())
        setLock(m_shared->getFileDescriptor(), F_UNLCK);
}

} // namespace kelm::host

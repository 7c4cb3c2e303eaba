#include "host/file_descriptor.h"

#include <cerrno>
#include <cstring>

#include <poll.h>
#include <unistd.h>

namespace kelm::host {

namespace {

yx::CIOError::Code codeOf(int error) {
    switch (error) {
    case ENOENT:
    case ENOTDIR:
        return yx::CIOError::NotFound;
    case EACCES:
    case EPERM:
    case EROFS:
        return yx::CIOError::AccessDenied;
    case EEXIST:
        return yx::CIOError::AlreadyExists;
    case ENOSPC:
    case EDQUOT:
        return yx::CIOError::NoSpace;
    default:
        return yx::CIOError::IOFailure;
    }
}

} // namespace

FileDescriptor::~FileDescriptor() {
    if (m_owned && m_value >= 0)
        ::close(m_value);
}

void waitUntilReady(int fileDescriptor, short events, CancelFlag const& cancel) {
    constexpr int kLookIntervalMilliseconds = 200;
    pollfd entry{fileDescriptor, events, 0};
    do {
        cancel.check();
    } while (::poll(&entry, 1, kLookIntervalMilliseconds) <= 0);
}

void throwSystemError(std::string const& what, std::string const& path) {
    int const error = errno;
    throw yx::CIOError(codeOf(error), yx::String::fromUTF8(what + ": " + std::strerror(error)),
                       yx::CProps().add("path", yx::String::fromUTF8(path)), nullptr);
}

} // namespace kelm::host

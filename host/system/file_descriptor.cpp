#include "host/system/file_descriptor.h"

#include <cassert>
#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include "yx/system_error.h"

namespace kelm::host {

namespace {

/// How long a set flag may go unnoticed.
constexpr int kLookIntervalMilliseconds = 200;

} // namespace

FileDescriptor::~FileDescriptor() {
    assert(m_value >= -1);
    if (m_owned && m_value >= 0)
        ::close(m_value);
}

void waitUntilReady(int fileDescriptor, short events, CancelFlag const* cancel) {
    assert(fileDescriptor >= 0 && "poll would wait for ever");
    pollfd entry{fileDescriptor, events, 0};
    do {
        if (cancel)
            cancel->check();
    } while (::poll(&entry, 1, kLookIntervalMilliseconds) <= 0);
    // What is ready may be the end, which came behind the signal.
    if (cancel)
        cancel->check();
}

FileDescriptor openForReading(std::string const& path) {
    struct stat status = {};
    bool const isPipe = ::stat(path.c_str(), &status) == 0 && S_ISFIFO(status.st_mode);
    // A signal that arrives just before a waiting `open` would be lost.
    int const flags = O_RDONLY | O_CLOEXEC | (isPipe ? O_NONBLOCK : 0);
    return FileDescriptor::own(::open(path.c_str(), flags));
}

FileDescriptor openPipeForWriting(std::string const& path, CancelFlag const* cancel) {
    while (true) {
        FileDescriptor pipe =
            FileDescriptor::own(::open(path.c_str(), O_WRONLY | O_CLOEXEC | O_NONBLOCK));
        // ENXIO: the pipe has no reader yet.
        if (pipe.isOpen() || errno != ENXIO)
            return pipe;
        if (cancel)
            cancel->check();
        ::poll(nullptr, 0, kLookIntervalMilliseconds);
    }
}

void throwSystemError(std::string const& what, std::string const& path) {
    int const error = errno;
    throw yx::CIOError(yx::getSystemErrorCode(error),
                       yx::String::fromUTF8(what + ": " + std::strerror(error)),
                       yx::CProps().add("path", yx::String::fromUTF8(path)), nullptr);
}

} // namespace kelm::host

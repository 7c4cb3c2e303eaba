#include "yx/internal/file_descriptor.h"

#include <cerrno>
#include <utility>

#include <fcntl.h>
#include <unistd.h>

namespace yx::detail {

namespace {

/// Of new files; the process's mask takes its bits away.
constexpr mode_t kNewFileMode = 0666;

int openRestarting(char const* path, int flags) {
    for (;;) {
        int const descriptor = ::open(path, flags, kNewFileMode);
        if (descriptor >= 0)
            return descriptor;
        if (errno != EINTR)
            return -errno;
    }
}

} // namespace

int FileDescriptor::close() {
    if (m_descriptor < 0)
        return 0;
    // An interrupted close has given the descriptor back all the same.
    if (::close(std::exchange(m_descriptor, -1)) == 0 || errno == EINTR)
        return 0;
    return errno;
}

int openDescriptor(char const* path, int flags) {
    flags |= O_CLOEXEC | O_NOCTTY;
    int const descriptor = openRestarting(path, flags | O_NONBLOCK);
    // Somebody holds a lease on the file. The system asks for it back while this call waits.
    if (descriptor == -EWOULDBLOCK)
        return openRestarting(path, flags);
    return descriptor;
}

} // namespace yx::detail

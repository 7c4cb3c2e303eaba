#include "tests/nbdkit/server.h"

#include <csignal>
#include <cstdlib>
#include <stdexcept>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace nbdkit {

namespace {

/// Where a process finds the first socket that it is to take over.
constexpr int kFirstPassedDescriptor = 3;

std::string makeSocketPath(std::filesystem::path const& folder) {
    static int count = 0;
    return folder.string() + "." + std::to_string(++count) + ".sock";
}

sockaddr_un makeAddress(std::string const& path) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path)
        throw std::runtime_error("the path of a socket is too long: " + path);
    path.copy(address.sun_path, path.size());
    return address;
}

} // namespace

Server::ListeningSocket::ListeningSocket(std::string const& path)
    : m_descriptor(::socket(AF_UNIX, SOCK_STREAM, 0)) {
    sockaddr_un const address = makeAddress(path);
    constexpr int kQueueLength = 16;
    if (::bind(m_descriptor, reinterpret_cast<sockaddr const*>(&address), sizeof address) != 0 ||
        ::listen(m_descriptor, kQueueLength) != 0)
        throw std::runtime_error("cannot listen on " + path);
}

Server::ListeningSocket::~ListeningSocket() {
    ::close(m_descriptor);
}

test_support::RunningProgram Server::start(std::filesystem::path const& folder,
                                           std::string const& socketPath,
                                           Arguments const& arguments,
                                           ServerSurroundings const& surroundings) {
    ListeningSocket const socket(socketPath);
    return {folder, joined({{"nbdkit"}, arguments}), [&] {
                if (socket.get() != kFirstPassedDescriptor)
                    ::dup2(socket.get(), kFirstPassedDescriptor);
                ::setenv("LISTEN_FDS", "1", 1);
                ::setenv("LISTEN_PID", std::to_string(::getpid()).c_str(), 1);
                if (!surroundings.preload.empty())
                    ::setenv("LD_PRELOAD", surroundings.preload.c_str(), 1);
                if (surroundings.prepare)
                    surroundings.prepare();
            }};
}

Server::Server(std::filesystem::path const& folder, Arguments const& arguments,
               ServerSurroundings const& surroundings)
    : m_socketPath(makeSocketPath(folder)),
      m_program(start(folder, m_socketPath, arguments, surroundings)) {}

Server::~Server() {
    if (m_isRunning)
        stop();
    ::unlink(m_socketPath.c_str());
}

std::string Server::greeting() const {
    int const connection = ::socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un const address = makeAddress(m_socketPath);
    char bytes[8] = {};
    ssize_t count = -1;
    if (::connect(connection, reinterpret_cast<sockaddr const*>(&address), sizeof address) == 0)
        count = ::recv(connection, bytes, sizeof bytes, MSG_WAITALL);
    ::close(connection);
    return {bytes, static_cast<std::size_t>(count > 0 ? count : 0)};
}

Outcome Server::stop() {
    m_program.signal(SIGTERM);
    return waitForEnd();
}

Outcome Server::waitForEnd() {
    m_isRunning = false;
    return m_program.finish();
}

void Server::kill() {
    m_program.signal(SIGKILL);
    waitForEnd();
}

} // namespace nbdkit

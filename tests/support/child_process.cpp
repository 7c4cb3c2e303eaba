#include "tests/support/child_process.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <exception>
#include <system_error>
#include <utility>

#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace test_support {

namespace {

constexpr pid_t kGone = 0;
constexpr int kExceptionExitCode = 99;

int runBody(std::function<int(Line const&)> const& body, Line const& line) {
    try {
        return body(line);
    } catch (std::exception const& error) {
        std::fprintf(stderr, "child process: %s\n", error.what());
        return kExceptionExitCode;
    }
}

} // namespace

Line::Line(Line&& other) noexcept : m_descriptor(std::exchange(other.m_descriptor, -1)) {}

Line::~Line() {
    if (m_descriptor >= 0)
        ::close(m_descriptor);
}

void Line::send(char character) const {
    // A child that was killed cannot receive any more, and must not end the test by a signal.
    while (::send(m_descriptor, &character, 1, MSG_NOSIGNAL) < 0 && errno == EINTR) {
    }
}

char Line::receive() const {
    char character = 0;
    ssize_t count = 0;
    do {
        count = ::recv(m_descriptor, &character, 1, 0);
    } while (count < 0 && errno == EINTR);
    return count == 1 ? character : '\0';
}

ChildProcess::ChildProcess(std::function<int(Line const&)> const& body)
    : ChildProcess(start(body)) {}

ChildProcess::ChildProcess(Started started) : m_line(std::move(started.line)), m_id(started.id) {}

ChildProcess::ChildProcess(ChildProcess&& other) noexcept
    : m_line(std::move(other.m_line)), m_id(std::exchange(other.m_id, kGone)) {}

ChildProcess::~ChildProcess() {
    if (m_id != kGone)
        kill();
}

void ChildProcess::kill() {
    ::kill(m_id, SIGKILL);
    wait();
}

int ChildProcess::wait() {
    int status = 0;
    while (::waitpid(m_id, &status, 0) < 0 && errno == EINTR) {
    }
    m_id = kGone;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

ChildProcess::Started ChildProcess::start(std::function<int(Line const&)> const& body) {
    int ends[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0)
        throw std::system_error(errno, std::generic_category(), "socketpair");
    std::fflush(nullptr);
    pid_t const id = ::fork();
    if (id < 0)
        throw std::system_error(errno, std::generic_category(), "fork");
    Line parentEnd(ends[0]);
    Line childEnd(ends[1]);
    if (id > 0)
        return {std::move(parentEnd), id};
    {
        // Closed here, so that the child sees when the test goes.
        Line const unused(std::move(parentEnd));
    }
    int const exitCode = runBody(body, childEnd);
    std::fflush(nullptr);
    ::_exit(exitCode);
}

} // namespace test_support

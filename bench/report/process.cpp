#include "bench/report/process.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <sys/ptrace.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "bench/report/measurements.h"

namespace bench {

namespace {

/// An argument of `getpgid` that nobody passes but the marks around what is counted.
constexpr long kMark = -424242;

void mark() {
    ::syscall(SYS_getpgid, kMark);
}

pid_t forkOrFail() {
    std::fflush(nullptr);
    pid_t const child = ::fork();
    if (child < 0)
        fail(std::string("cannot fork: ") + std::strerror(errno));
    return child;
}

std::string nameOfSystemCall(unsigned long long number) {
    static std::map<unsigned long long, char const*> const kNames = {
        {SYS_read, "read"},       {SYS_write, "write"},         {SYS_pread64, "pread"},
        {SYS_pwrite64, "pwrite"}, {SYS_pwritev, "pwritev"},     {SYS_openat, "open"},
        {SYS_close, "close"},     {SYS_fstat, "fstat"},         {SYS_newfstatat, "stat"},
        {SYS_lseek, "lseek"},     {SYS_fcntl, "fcntl"},         {SYS_fdatasync, "fdatasync"},
        {SYS_fsync, "fsync"},     {SYS_ftruncate, "ftruncate"}, {SYS_unlinkat, "unlink"},
        {SYS_brk, "brk"},         {SYS_mmap, "mmap"},           {SYS_munmap, "munmap"},
        {SYS_futex, "futex"},     {SYS_getrandom, "getrandom"},
#ifdef SYS_open
        {SYS_open, "open"},       {SYS_stat, "stat"},           {SYS_lstat, "lstat"},
        {SYS_access, "access"},   {SYS_unlink, "unlink"},
#endif
    };
    auto const found = kNames.find(number);
    return found == kNames.end() ? "call " + std::to_string(number) : found->second;
}

/// What the child does: asks to be traced, then runs between two marks.
[[noreturn]] void runTraced(std::function<void()> const& run) {
    if (::ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0)
        ::_exit(1);
    ::raise(SIGSTOP);
    mark();
    run();
    mark();
    ::_exit(0);
}

/// Follows a stopped child to its end and counts the calls between the marks.
SystemCalls traceChild(pid_t child) {
    SystemCalls calls;
    bool between = false;
    int status = 0;
    int signal = 0;
    ::ptrace(PTRACE_SETOPTIONS, child, nullptr, PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL);
    while (::ptrace(PTRACE_SYSCALL, child, nullptr, signal) == 0 &&
           ::waitpid(child, &status, 0) == child && WIFSTOPPED(status)) {
        bool const atCall = WSTOPSIG(status) == (SIGTRAP | 0x80);
        signal = atCall ? 0 : WSTOPSIG(status);
        __ptrace_syscall_info info = {};
        if (!atCall || ::ptrace(PTRACE_GET_SYSCALL_INFO, child, sizeof(info), &info) <= 0 ||
            info.op != PTRACE_SYSCALL_INFO_ENTRY)
            continue;
        if (info.entry.nr == SYS_getpgid && static_cast<int>(info.entry.args[0]) == kMark)
            between = !between;
        else if (between)
            ++calls[nameOfSystemCall(info.entry.nr)];
    }
    return calls;
}

struct LaunchResult {
    ProcessUse use;

    /// As `wait4` gives it.
    int status;
};

/// Runs a program to its end.
LaunchResult launch(std::vector<char*> const& arguments) {
    LaunchResult result = {};
    result.use.seconds = secondsOf([&] {
        pid_t const child = forkOrFail();
        if (child == 0) {
            int const nowhere = ::open("/dev/null", O_WRONLY);
            ::dup2(nowhere, STDOUT_FILENO);
            ::execvp(arguments[0], arguments.data());
            ::_exit(127);
        }
        rusage usage = {};
        if (::wait4(child, &result.status, 0, &usage) != child)
            fail("lost a child process");
        result.use.peakMemoryBytes = usage.ru_maxrss * 1024LL;
    });
    return result;
}

/// The launcher's end of the line and ours.
int launcherSocket = -1;

/// Takes commands, each one message of arguments that end with a zero byte, until we are gone.
[[noreturn]] void serveLaunches(int socket) {
    std::vector<char> message(64 * 1024);
    while (true) {
        ssize_t const size = ::recv(socket, message.data(), message.size(), 0);
        if (size <= 0)
            ::_exit(0);
        std::vector<char*> arguments;
        for (char* next = message.data(); next < message.data() + size;
             next += std::strlen(next) + 1)
            arguments.push_back(next);
        arguments.push_back(nullptr);
        LaunchResult const result = launch(arguments);
        if (::send(socket, &result, sizeof(result), 0) != sizeof(result))
            ::_exit(1);
    }
}

} // namespace

void startLauncher() {
    int sockets[2];
    if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, sockets) != 0)
        fail(std::string("cannot make a socket: ") + std::strerror(errno));
    if (forkOrFail() == 0) {
        ::close(sockets[0]);
        serveLaunches(sockets[1]);
    }
    ::close(sockets[1]);
    launcherSocket = sockets[0];
}

void fail(std::string const& message) {
    std::fprintf(stderr, "bench_report: %s\n", message.c_str());
    std::exit(1);
}

ProcessUse runProgram(std::vector<std::string> const& arguments) {
    std::string message;
    std::string command;
    for (std::string const& argument : arguments) {
        message += argument + '\0';
        command += argument + " ";
    }
    LaunchResult result = {};
    if (::send(launcherSocket, message.data(), message.size(), 0) < 0 ||
        ::recv(launcherSocket, &result, sizeof(result), 0) != sizeof(result))
        fail("cannot run: " + command);
    if (!WIFEXITED(result.status) || WEXITSTATUS(result.status) != 0)
        fail("failed: " + command);
    return result.use;
}

SystemCalls countSystemCalls(std::function<void()> const& run) {
    pid_t const child = forkOrFail();
    if (child == 0)
        runTraced(run);
    int status = 0;
    if (::waitpid(child, &status, 0) != child || !WIFSTOPPED(status))
        return {};
    return traceChild(child);
}

std::string formatSystemCalls(SystemCalls const& calls) {
    if (calls.empty())
        return "not counted: tracing is not allowed here";
    int total = 0;
    std::string text;
    for (auto const& [name, count] : calls) {
        total += count;
        text += (text.empty() ? "" : ", ") + name + " " + std::to_string(count);
    }
    return std::to_string(total) + ": " + text;
}

} // namespace bench

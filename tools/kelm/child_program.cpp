#include "tools/kelm/child_program.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <thread>

#include <fcntl.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include "host/system/file_descriptor.h"

namespace kelm::tool {

namespace {

constexpr std::chrono::milliseconds kEndStep{20};
constexpr int kEndSteps = 250;

/// The words of programs are looked at, so they are to be English.
std::vector<std::string> environmentInEnglish() {
    std::vector<std::string> variables{"LC_ALL=C"};
    for (char** variable = environ; *variable != nullptr; ++variable) {
        if (std::strncmp(*variable, "LC_ALL=", 7) != 0)
            variables.emplace_back(*variable);
    }
    return variables;
}

std::vector<char*> pointersTo(std::vector<std::string> const& texts) {
    std::vector<char*> pointers;
    pointers.reserve(texts.size() + 1);
    for (std::string const& text : texts)
        pointers.push_back(const_cast<char*>(text.c_str()));
    pointers.push_back(nullptr);
    return pointers;
}

/// How a program is started.
class Spawning {
public:
    explicit Spawning(short flags) {
        ::posix_spawn_file_actions_init(&m_actions);
        ::posix_spawnattr_init(&m_attributes);
        // What this program ignores, others need not.
        sigset_t signals;
        ::sigemptyset(&signals);
        ::sigaddset(&signals, SIGPIPE);
        ::sigaddset(&signals, SIGXFSZ);
        ::posix_spawnattr_setsigdefault(&m_attributes, &signals);
        ::posix_spawnattr_setflags(&m_attributes,
                                   static_cast<short>(POSIX_SPAWN_SETSIGDEF | flags));
        ::posix_spawn_file_actions_addopen(&m_actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    }
    Spawning(Spawning const&) = delete;
    Spawning& operator=(Spawning const&) = delete;
    ~Spawning() {
        ::posix_spawn_file_actions_destroy(&m_actions);
        ::posix_spawnattr_destroy(&m_attributes);
    }

    void give(int descriptor, int number) {
        ::posix_spawn_file_actions_adddup2(&m_actions, descriptor, number);
    }

    /// It keeps no folder in use.
    void leaveFolder() { ::posix_spawn_file_actions_addchdir_np(&m_actions, "/"); }

    pid_t start(std::vector<std::string> const& words) {
        std::vector<std::string> const environment = environmentInEnglish();
        pid_t process = -1;
        errno = ::posix_spawnp(&process, words.front().c_str(), &m_actions, &m_attributes,
                               pointersTo(words).data(), pointersTo(environment).data());
        if (errno != 0)
            host::throwSystemError("Cannot start the program", words.front());
        return process;
    }

private:
    posix_spawn_file_actions_t m_actions{};
    posix_spawnattr_t m_attributes{};
};

int waitFor(pid_t process) {
    int status = 0;
    while (::waitpid(process, &status, 0) < 0) {
        if (errno != EINTR)
            return -1;
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::string readAll(int file) {
    std::string text;
    char part[4096];
    ssize_t count = 0;
    while ((count = ::pread(file, part, sizeof part, static_cast<off_t>(text.size()))) > 0)
        text.append(part, static_cast<std::size_t>(count));
    while (!text.empty() && text.back() == '\n')
        text.pop_back();
    return text;
}

} // namespace

bool isProgramThere(std::string const& name) {
    char const* const path = std::getenv("PATH");
    std::istringstream folders(path != nullptr ? path : "/usr/bin:/bin");
    for (std::string folder; std::getline(folders, folder, ':');) {
        folder.append("/").append(name);
        if (::access(folder.c_str(), X_OK) == 0)
            return true;
    }
    return false;
}

ProgramEnd runProgram(std::vector<std::string> const& words) {
    // No pipe: a helper that the program leaves behind would keep it open.
    host::FileDescriptor const said =
        host::FileDescriptor::own(::memfd_create("kelm-words", MFD_CLOEXEC));
    if (!said.isOpen())
        host::throwSystemError("Cannot make a file in memory", "memfd");
    Spawning spawning(POSIX_SPAWN_SETPGROUP);
    spawning.give(said.get(), STDOUT_FILENO);
    spawning.give(said.get(), STDERR_FILENO);
    ProgramEnd end;
    end.status = waitFor(spawning.start(words));
    end.words = readAll(said.get());
    return end;
}

BackgroundProgram::BackgroundProgram(std::vector<std::string> const& words,
                                     std::string const& logFile, Descriptors const& descriptors) {
    constexpr int kLogFlags = O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC;
    host::FileDescriptor const log =
        host::FileDescriptor::own(::open(logFile.c_str(), kLogFlags, 0600));
    if (!log.isOpen())
        host::throwSystemError("Cannot make the file", logFile);
    Spawning spawning(POSIX_SPAWN_SETSID);
    spawning.give(log.get(), STDOUT_FILENO);
    spawning.give(log.get(), STDERR_FILENO);
    for (auto const& [descriptor, number] : descriptors)
        spawning.give(descriptor, number);
    spawning.leaveFolder();
    m_process = spawning.start(words);
}

bool BackgroundProgram::hasEnded() {
    int status = 0;
    if (!m_hasEnded)
        m_hasEnded = ::waitpid(m_process, &status, WNOHANG) == m_process;
    return m_hasEnded;
}

void BackgroundProgram::end() {
    if (hasEnded())
        return;
    ::kill(m_process, SIGTERM);
    for (int step = 0; step < kEndSteps && !hasEnded(); ++step)
        std::this_thread::sleep_for(kEndStep);
    if (m_hasEnded)
        return;
    ::kill(m_process, SIGKILL);
    waitFor(m_process);
    m_hasEnded = true;
}

} // namespace kelm::tool

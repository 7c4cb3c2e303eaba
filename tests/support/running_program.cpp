#include "tests/support/running_program.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <fstream>
#include <iterator>
#include <system_error>

#include <fcntl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/support/signals.h"

namespace test_support {

namespace {

/// Beside the folder, so that a test finds only the program's own files in it; a `TempDirectory`
/// takes it away too.
std::string makeErrorFileName(std::filesystem::path const& folder) {
    static int count = 0;
    return folder.string() + "." + std::to_string(++count) + ".stderr";
}

/// In the child process: becomes the program.
[[noreturn]] void becomeProgram(std::filesystem::path const& folder, Arguments const& command,
                                std::function<void()> const& prepare,
                                std::filesystem::path const& errorFile, int input, int output) {
    int const errors = ::open(errorFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    ::dup2(input, STDIN_FILENO);
    ::dup2(output, STDOUT_FILENO);
    ::dup2(errors, STDERR_FILENO);
    ::close(errors);
    // Without a terminal of its own, it cannot ask for passwords.
    ::setsid();
    std::vector<char*> words;
    for (std::string const& argument : command)
        words.push_back(const_cast<char*>(argument.c_str()));
    words.push_back(nullptr);
    if (prepare)
        prepare();
    if (::chdir(folder.c_str()) == 0)
        ::execvp(words.front(), words.data());
    ::_exit(127);
}

} // namespace

Arguments joined(std::initializer_list<Arguments> parts) {
    Arguments all;
    for (Arguments const& part : parts)
        all.insert(all.end(), part.begin(), part.end());
    return all;
}

RunningProgram::RunningProgram(std::filesystem::path const& folder, Arguments const& command,
                               std::function<void()> const& prepare)
    : m_errorFile(makeErrorFileName(folder)) {
    // A program that has ended must not end the test when it is fed.
    std::signal(SIGPIPE, SIG_IGN);
    int input[2];
    int output[2];
    if (::pipe2(input, O_CLOEXEC) != 0 || ::pipe2(output, O_CLOEXEC) != 0)
        throw std::system_error(errno, std::generic_category(), "pipe");
    m_id = ::fork();
    if (m_id < 0)
        throw std::system_error(errno, std::generic_category(), "fork");
    if (m_id == 0) {
        resetSignals();
        becomeProgram(folder, command, prepare, m_errorFile, input[0], output[1]);
    }
    ::close(input[0]);
    ::close(output[1]);
    m_input = input[1];
    m_output = output[0];
}

RunningProgram::~RunningProgram() {
    if (m_id > 0)
        finish();
    std::filesystem::remove(m_errorFile);
}

void RunningProgram::feed(std::string const& bytes) {
    std::size_t done = 0;
    while (done < bytes.size()) {
        ssize_t const count = ::write(m_input, bytes.data() + done, bytes.size() - done);
        if (count <= 0)
            return;
        done += static_cast<std::size_t>(count);
    }
}

void RunningProgram::closeInput() {
    if (m_input >= 0)
        ::close(m_input);
    m_input = -1;
}

std::string RunningProgram::readOutput(std::size_t bytes) {
    std::string text;
    char chunk[65536];
    while (text.size() < bytes) {
        ssize_t const count = ::read(m_output, chunk, std::min(sizeof chunk, bytes - text.size()));
        if (count <= 0)
            break;
        text.append(chunk, static_cast<std::size_t>(count));
    }
    return text;
}

void RunningProgram::signal(int number) {
    // Given -1, `kill` would reach every process there is.
    if (m_id > 0)
        ::kill(m_id, number);
}

bool RunningProgram::pause() {
    signal(SIGSTOP);
    siginfo_t news = {};
    // Its end, if that is the news, is left to `finish`.
    int const result =
        ::waitid(P_PID, static_cast<id_t>(m_id), &news, WSTOPPED | WEXITED | WNOWAIT);
    return result == 0 && news.si_code == CLD_STOPPED;
}

void RunningProgram::resume() {
    signal(SIGCONT);
}

Outcome RunningProgram::finish() {
    closeInput();
    Outcome outcome;
    outcome.out = readOutput(std::string::npos);
    ::close(m_output);
    int status = 0;
    ::waitpid(m_id, &status, 0);
    m_id = -1;
    outcome.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    outcome.err = readErrors();
    return outcome;
}

std::string RunningProgram::readErrors() const {
    std::ifstream stream(m_errorFile, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), {}};
}

int openProcess(pid_t id) {
    return static_cast<int>(::syscall(SYS_pidfd_open, id, 0));
}

} // namespace test_support

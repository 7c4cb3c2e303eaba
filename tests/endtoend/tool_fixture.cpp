#include "tests/endtoend/tool_fixture.h"

#include <csignal>
#include <cstdlib>
#include <fstream>
#include <random>
#include <sstream>
#include <stdexcept>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace endtoend {

namespace {

constexpr std::size_t kStretchBytes = std::size_t{1} << 15;

std::string readAll(std::filesystem::path const& file) {
    std::ifstream stream(file, std::ios::binary);
    std::ostringstream text;
    text << stream.rdbuf();
    return text.str();
}

/// In the child process: becomes the program.
[[noreturn]] void becomeTool(std::filesystem::path const& folder, Arguments const& arguments,
                             std::filesystem::path const& errorFile, int input, int output) {
    int const errors = ::open(errorFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    ::dup2(input, STDIN_FILENO);
    ::dup2(output, STDOUT_FILENO);
    ::dup2(errors, STDERR_FILENO);
    // Without a terminal of its own, it cannot ask for passwords.
    ::setsid();
    std::vector<char*> words{const_cast<char*>("kelm")};
    for (std::string const& argument : arguments)
        words.push_back(const_cast<char*>(argument.c_str()));
    words.push_back(nullptr);
    if (::chdir(folder.c_str()) == 0)
        ::execv(KELM_TOOL, words.data());
    ::_exit(127);
}

} // namespace

RunningTool::RunningTool(std::filesystem::path const& folder, Arguments const& arguments)
    : m_errorFile(folder.string() + ".stderr") {
    // A program that has ended must not end the test when it is fed.
    std::signal(SIGPIPE, SIG_IGN);
    int input[2];
    int output[2];
    if (::pipe2(input, O_CLOEXEC) != 0 || ::pipe2(output, O_CLOEXEC) != 0)
        throw std::runtime_error("no pipe");
    m_id = ::fork();
    if (m_id == 0)
        becomeTool(folder, arguments, m_errorFile, input[0], output[1]);
    ::close(input[0]);
    ::close(output[1]);
    m_input = input[1];
    m_output = output[0];
}

RunningTool::~RunningTool() {
    if (m_id > 0)
        finish();
    std::filesystem::remove(m_errorFile);
}

void RunningTool::feed(std::string const& bytes) {
    std::size_t done = 0;
    while (done < bytes.size()) {
        ssize_t const count = ::write(m_input, bytes.data() + done, bytes.size() - done);
        if (count <= 0)
            return;
        done += static_cast<std::size_t>(count);
    }
}

void RunningTool::closeInput() {
    if (m_input >= 0)
        ::close(m_input);
    m_input = -1;
}

std::string RunningTool::readOutput(std::size_t bytes) {
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

void RunningTool::signal(int number) {
    ::kill(m_id, number);
}

Outcome RunningTool::finish() {
    closeInput();
    Outcome outcome;
    outcome.out = readOutput(std::string::npos);
    ::close(m_output);
    int status = 0;
    ::waitpid(m_id, &status, 0);
    m_id = -1;
    outcome.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    outcome.err = readAll(m_errorFile);
    return outcome;
}

ToolTest::ToolTest() = default;

Outcome ToolTest::run(Arguments const& arguments, std::string const& input) const {
    RunningTool tool(folder(), arguments);
    tool.feed(input);
    return tool.finish();
}

std::string ToolTest::runWell(Arguments const& arguments) const {
    Outcome const outcome = run(arguments);
    EXPECT_EQ(outcome.status, 0) << arguments.front();
    EXPECT_EQ(outcome.err, "") << arguments.front();
    return outcome.out;
}

std::string ToolTest::runBadly(int status, Arguments const& arguments) const {
    Outcome const outcome = run(arguments);
    EXPECT_EQ(outcome.status, status) << outcome.err;
    EXPECT_EQ(outcome.err.find('\n'), outcome.err.size() - 1) << outcome.err;
    return outcome.err;
}

std::set<std::string> ToolTest::listFiles() const {
    std::set<std::string> names;
    for (auto const& entry : std::filesystem::directory_iterator(folder()))
        names.insert(entry.path().filename().string());
    return names;
}

std::string ToolTest::readFile(std::string const& name) const {
    return readAll(folder() / name);
}

void ToolTest::writeFile(std::string const& name, std::string const& bytes) const {
    std::ofstream(folder() / name, std::ios::binary) << bytes;
}

void ToolTest::patchFile(std::string const& name, std::size_t position,
                         std::string const& bytes) const {
    std::fstream stream(folder() / name, std::ios::binary | std::ios::in | std::ios::out);
    stream.seekp(static_cast<std::streamoff>(position));
    stream << bytes;
}

std::string ToolTest::makeImage(std::size_t sizeBytes, unsigned int seed) {
    std::mt19937 random(seed);
    std::string image(sizeBytes, '\0');
    for (std::size_t start = 0; start < sizeBytes; start += kStretchBytes) {
        std::size_t const end = std::min(sizeBytes, start + kStretchBytes);
        unsigned int const kind = random() % 4;
        for (std::size_t i = start; kind > 1 && i < end; ++i)
            image[i] = static_cast<char>(kind == 2 ? 'a' + i % 7 : random());
    }
    return image;
}

} // namespace endtoend

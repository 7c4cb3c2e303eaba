#include "tests/endtoend/tool_fixture.h"

#include <algorithm>
#include <fstream>
#include <iterator>
#include <random>
#include <sstream>

#include <poll.h>
#include <sys/inotify.h>
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

} // namespace

RunningTool::RunningTool(std::filesystem::path const& folder, Arguments const& arguments,
                         std::function<void()> const& prepare)
    : RunningProgram(folder, joined({{KELM_TOOL}, arguments}), prepare) {}

std::vector<std::string> const& allCommands() {
    static std::vector<std::string> const kCommands{
        "create", "info", "import", "export",  "convert", "compare", "check",
        "map",    "list", "child",  "flatten", "rebase",  "rename",  "delete"};
    return kCommands;
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

void ToolTest::waitForFile(RunningTool const& tool, std::string const& name) const {
    int const watch = ::inotify_init1(IN_CLOEXEC);
    int const process = test_support::openProcess(tool.id());
    ASSERT_GE(::inotify_add_watch(watch, folder().c_str(), IN_CREATE), 0);
    pollfd events[] = {{watch, POLLIN, 0}, {process, POLLIN, 0}};
    while (listFiles().count(name) == 0 && events[1].revents == 0) {
        ::poll(events, std::size(events), -1);
        char news[4096];
        if (events[0].revents != 0) {
            ASSERT_GT(::read(watch, news, sizeof news), 0);
        }
    }
    ::close(watch);
    ::close(process);
}

void ToolTest::waitForWrites(RunningTool const& tool, std::string const& name, int count) const {
    waitForFile(tool, name);
    int const watch = ::inotify_init1(IN_CLOEXEC);
    int const process = test_support::openProcess(tool.id());
    // The program may be through, and have removed what it made.
    bool const isThere = ::inotify_add_watch(watch, path(name).c_str(), IN_MODIFY) >= 0;
    pollfd events[] = {{watch, POLLIN, 0}, {process, POLLIN, 0}};
    while (isThere && count > 0 && events[1].revents == 0) {
        ::poll(events, std::size(events), -1);
        // Equal events in a row are one: each is counted as it comes.
        char news[sizeof(inotify_event)];
        if (events[0].revents != 0) {
            ASSERT_GT(::read(watch, news, sizeof news), 0);
            --count;
        }
    }
    ::close(watch);
    ::close(process);
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

#include "tests/endtoend/tool_fixture.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <random>
#include <regex>
#include <sstream>

#include <poll.h>
#include <sys/inotify.h>
#include <unistd.h>

#include "tests/support/folder_cut.h"

namespace endtoend {

namespace {

constexpr std::size_t kStretchBytes = std::size_t{1} << 15;
constexpr std::size_t kTextPeriod = 7;

std::string readAll(std::filesystem::path const& file) {
    std::ifstream stream(file, std::ios::binary);
    std::ostringstream text;
    text << stream.rdbuf();
    return text.str();
}

void fillWithNoise(char* bytes, std::size_t count, std::mt19937& random) {
    for (std::size_t at = 0; at < count; at += sizeof(std::uint32_t)) {
        auto const word = static_cast<std::uint32_t>(random());
        std::memcpy(bytes + at, &word, std::min(sizeof word, count - at));
    }
}

/// Whether a command is long, and says at its end what it did unless it is told not to.
bool endsWithSummary(Arguments const& arguments) {
    static std::set<std::string> const kLongCommands{
        "check",  "compact", "compare", "convert", "copy",  "digest", "drop",
        "export", "flatten", "import",  "merge",   "prune", "rebase", "repair"};
    auto const has = [&](char const* option) {
        return std::find(arguments.begin(), arguments.end(), option) != arguments.end();
    };
    return kLongCommands.contains(arguments.front()) && !has("--json") && !has("--quiet") &&
           !has("--help");
}

/// In the process that is to become the program: lets it count and write down its operations.
void logOperations() {
    ::setenv("LD_PRELOAD", KELM_FILE_LOG_LIBRARY, 1);
    ::setenv("KELM_FILE_LOG_NO_SYNC", "1", 1);
    // The library comes before those that look for memory errors.
    ::setenv("ASAN_OPTIONS", "verify_asan_link_order=0", 1);
}

} // namespace

RunningTool::RunningTool(std::filesystem::path const& folder, Arguments const& arguments,
                         std::function<void()> const& prepare)
    : RunningProgram(folder, joined({{KELM_TOOL}, arguments}), prepare) {}

ToolOutcome RunningTool::finish() {
    ToolOutcome outcome{RunningProgram::finish(), {}};
    outcome.summary = takeSummary(outcome.err);
    return outcome;
}

std::string takeSummary(std::string& words) {
    static std::regex const kSummary(
        "(^|\n)(kelm: [a-z]+ took [0-9.e-]+ s(, [0-9.]+ ([KMGT]iB|bytes)/s)?\n"
        "kelm: (read|copied nothing)[^\n]*, [0-9]+ warnings?\n)$");
    std::smatch match;
    if (!std::regex_search(words, match, kSummary))
        return "";
    std::string summary = match.str(2);
    words.erase(words.size() - summary.size());
    return summary;
}

std::vector<std::string> const& allCommands() {
    static std::vector<std::string> const kCommands{
        "create",  "info",     "import", "export",  "convert", "compare", "check",
        "map",     "list",     "child",  "flatten", "rebase",  "rename",  "copy",
        "delete",  "password", "digest", "repair",  "drop",    "merge",   "prune",
        "compact", "files",    "mount",  "umount",  "unlock",  "help"};
    return kCommands;
}

ToolTest::ToolTest() = default;

ToolOutcome ToolTest::run(Arguments const& arguments, std::string const& input) const {
    RunningTool tool(folder(), arguments);
    tool.feed(input);
    return tool.finish();
}

std::string ToolTest::runWell(Arguments const& arguments) const {
    ToolOutcome const outcome = run(arguments);
    EXPECT_EQ(outcome.status, 0) << arguments.front();
    EXPECT_EQ(outcome.err, "") << arguments.front();
    EXPECT_EQ(!outcome.summary.empty(), endsWithSummary(arguments)) << arguments.front();
    return outcome.out;
}

std::string ToolTest::runBadly(int status, Arguments const& arguments) const {
    Outcome const outcome = run(arguments);
    EXPECT_EQ(outcome.status, status) << outcome.err;
    EXPECT_EQ(outcome.err.find('\n'), outcome.err.size() - 1) << outcome.err;
    return outcome.err;
}

int ToolTest::countOperations(Arguments const& arguments) const {
    std::filesystem::path const log = folder().string() + ".log";
    RunningTool tool(folder(), arguments, [&] {
        logOperations();
        ::setenv("KELM_FILE_LOG", log.c_str(), 1);
    });
    EXPECT_EQ(tool.finish().status, 0) << arguments.front();
    int const operations = test_support::FolderCut::countOperations(log);
    std::filesystem::remove(log);
    return operations;
}

bool ToolTest::runAndKillBehind(int operations, Arguments const& arguments) const {
    RunningTool tool(folder(), arguments, [&] {
        logOperations();
        ::setenv("KELM_FILE_LOG_KILL_AFTER", std::to_string(operations).c_str(), 1);
    });
    return tool.finish().status == -1;
}

ToolOutcome ToolTest::runAndSignalBehindTheFirst(int signal, Arguments const& arguments) const {
    RunningTool tool(folder(), arguments, [&] {
        logOperations();
        ::setenv("KELM_FILE_LOG_KILL_AFTER", "1", 1);
        ::setenv("KELM_FILE_LOG_SIGNAL", std::to_string(signal).c_str(), 1);
    });
    return tool.finish();
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
    std::string text;
    while (text.size() < kStretchBytes + kTextPeriod)
        text += "abcdefg";
    for (std::size_t start = 0; start < sizeBytes; start += kStretchBytes) {
        std::size_t const end = std::min(sizeBytes, start + kStretchBytes);
        unsigned int const kind = random() % 4;
        if (kind == 2)
            text.copy(&image[start], end - start, start % kTextPeriod);
        else if (kind == 3)
            fillWithNoise(&image[start], end - start, random);
    }
    return image;
}

} // namespace endtoend

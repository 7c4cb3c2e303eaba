#include "tests/year/troubled_tool.h"

#include <algorithm>
#include <cstdlib>
#include <iterator>

#include <gtest/gtest.h>

#include "tests/year/kept_inodes.h"

namespace year_test {

namespace {

namespace fs = std::filesystem;

using test_support::FolderCut;

/// Of a command that has not run to its end yet.
constexpr int kOperationsOfAnyCommand = 6;

/// How often one task is struck at most.
constexpr int kMaxStrikes = 3;

std::string inOneLine(Arguments const& command) {
    std::string line = "kelm";
    for (std::string const& word : command)
        line += " " + word;
    return line;
}

} // namespace

TroubledTool::TroubledTool(fs::path folder, fs::path aside, std::mt19937& random)
    : m_folder(std::move(folder)), m_aside(std::move(aside)), m_random(random) {}

std::string TroubledTool::doTask(Task const& task) {
    SCOPED_TRACE(inOneLine(task.command));
    int strikes = 0;
    Attempt last = attempt(task, task.command, drawTrouble(task.command.front(), strikes));
    while (last.isStruck) {
        ++strikes;
        m_look();
        if (last.isDone || testing::Test::HasFailure())
            break;
        last = goOn(task, strikes);
    }
    EXPECT_TRUE(last.isDone) << "status " << last.outcome.status << "\n"
                             << last.outcome.out << last.outcome.err;
    return last.outcome.out;
}

Outcome TroubledTool::run(Arguments const& arguments) {
    return runLogged(arguments, 0);
}

TroubledTool::Trouble TroubledTool::drawTrouble(std::string const& command, int strikes) {
    constexpr unsigned int kPercentKilled = 35;
    constexpr unsigned int kPercentCut = 20;
    if (strikes >= kMaxStrikes)
        return Trouble::None;
    TroubleCount const& count = m_counts[command];
    if (count.kills == 0)
        return Trouble::Kill;
    if (count.cuts == 0)
        return Trouble::PowerCut;
    auto const lot = m_random() % 100;
    if (lot < kPercentKilled)
        return Trouble::Kill;
    return lot < kPercentKilled + kPercentCut ? Trouble::PowerCut : Trouble::None;
}

int TroubledTool::drawOperation(std::string const& command) {
    int const operations = m_operations.emplace(command, kOperationsOfAnyCommand).first->second;
    return 1 + static_cast<int>(m_random() % static_cast<unsigned int>(operations));
}

bool TroubledTool::isDone(Task const& task, Outcome const& outcome) const {
    if (outcome.status == 0)
        return true;
    return std::any_of(task.doneWords.begin(), task.doneWords.end(), [&](std::string const& words) {
        return outcome.err.find(words) != std::string::npos;
    });
}

TroubledTool::Attempt TroubledTool::attempt(Task const& task, Arguments const& command,
                                            Trouble trouble) {
    TroubleCount& count = m_counts[command.front()];
    ++count.runs;
    if (trouble == Trouble::PowerCut)
        return runWithPowerCut(task, command);
    Attempt result;
    int const killAfter = trouble == Trouble::Kill ? drawOperation(command.front()) : 0;
    result.outcome = runLogged(command, killAfter);
    result.isStruck = result.outcome.status == -1;
    EXPECT_TRUE(!result.isStruck || killAfter > 0) << "ended by a signal: " << inOneLine(command);
    count.kills += result.isStruck ? 1 : 0;
    result.isDone = isDone(task, result.outcome);
    return result;
}

TroubledTool::Attempt TroubledTool::goOn(Task const& task, int strikes) {
    std::vector<Arguments> const attempts =
        task.again.empty() ? std::vector<Arguments>{task.command} : task.again;
    std::string words;
    Attempt last;
    for (Arguments const& command : attempts) {
        last = attempt(task, command, drawTrouble(command.front(), strikes));
        if (last.isStruck || last.isDone)
            return last;
        words += inOneLine(command) + "\n" + last.outcome.err;
    }
    last.outcome.err = words;
    return last;
}

TroubledTool::Attempt TroubledTool::runWithPowerCut(Task const& task, Arguments const& command) {
    KeptInodes const kept(m_folder, m_aside / "kept");
    FolderCut cut(m_folder);
    fs::remove(m_aside / "log");
    Attempt result;
    result.outcome = runLogged(command, drawOperation(command.front()));
    // A command that fails has nothing to lose, and its words are what is looked at.
    result.isDone = isDone(task, result.outcome);
    if (result.outcome.status != -1 && result.outcome.status != 0)
        return result;
    cut.readLog(m_aside / "log");
    while (cut.step()) {
    }
    FolderCut::Loss const loss = FolderCut::kLosses[m_random() % std::size(FolderCut::kLosses)];
    kept.bringBack(cut.makeState(loss, m_random));
    result.isStruck = true;
    ++m_counts[command.front()].cuts;
    return result;
}

Outcome TroubledTool::runLogged(Arguments const& command, int killAfter) {
    fs::path const log = m_aside / "log";
    fs::remove(log);
    Outcome outcome =
        test_support::RunningProgram(m_folder, joined({{KELM_TOOL}, command}), [&] {
            ::setenv("LD_PRELOAD", KELM_FILE_LOG_LIBRARY ":" KELM_FIXED_CLOCK_LIBRARY, 1);
            ::setenv("KELM_FIXED_CLOCK", std::to_string(m_time).c_str(), 1);
            ::setenv("KELM_FILE_LOG", log.c_str(), 1);
            ::setenv("KELM_FILE_LOG_NO_SYNC", "1", 1);
            if (killAfter > 0)
                ::setenv("KELM_FILE_LOG_KILL_AFTER", std::to_string(killAfter).c_str(), 1);
            // The libraries come before those that look for memory errors.
            ::setenv("ASAN_OPTIONS", "verify_asan_link_order=0", 1);
        }).finish();
    if (outcome.status == 0 && fs::exists(log))
        m_operations[command.front()] = FolderCut::countOperations(log);
    return outcome;
}

} // namespace year_test

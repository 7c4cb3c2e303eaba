#pragma once

#include <ctime>
#include <filesystem>
#include <functional>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "tests/support/running_program.h"

namespace year_test {

using test_support::Arguments;
using test_support::joined;
using test_support::Outcome;

/// How often a command was run, killed, and struck by a power cut.
struct TroubleCount {
    int runs = 0;
    int kills = 0;
    int cuts = 0;
};

/// Something to be done by the program, whatever happens on the way.
struct Task {
    Arguments command;

    /// What is to be tried after a kill or a power cut, one behind the other until one succeeds;
    /// the same command if this is empty.
    std::vector<Arguments> again = {};

    /// What the program says where the first attempt had done all and was struck at its very end.
    std::vector<std::string> doneWords = {};
};

/// The program kelm at work below a folder, in which programs are killed and the power fails, both
/// between any two of the operations that the program does on files.
class TroubledTool {
public:
    /// Both are on one file system; `aside` is for the tool alone. `random` must outlive it.
    TroubledTool(std::filesystem::path folder, std::filesystem::path aside, std::mt19937& random);

    /// What the program takes for the present.
    void setTime(std::time_t time) { m_time = time; }

    /// Called after each kill and power cut, before anything is tried again.
    void setLook(std::function<void()> look) { m_look = std::move(look); }

    /// Does it until it is done. What fails for another reason than trouble is a failure of the
    /// test. Returns what the last attempt printed.
    std::string doTask(Task const& task);

    /// Runs the program once, without trouble.
    Outcome run(Arguments const& arguments);

    /// By command.
    std::map<std::string, TroubleCount> const& getCounts() const { return m_counts; }

private:
    enum class Trouble { None, Kill, PowerCut };

    struct Attempt {
        bool isStruck = false;
        bool isDone = false;
        Outcome outcome = {};
    };

    Trouble drawTrouble(std::string const& command, int strikes);
    Attempt attempt(Task const& task, Arguments const& command, Trouble trouble);
    Attempt goOn(Task const& task, int strikes);
    Attempt runWithPowerCut(Task const& task, Arguments const& command);
    Outcome runLogged(Arguments const& command, int killAfter);
    int drawOperation(std::string const& command);
    bool isDone(Task const& task, Outcome const& outcome) const;

    std::filesystem::path m_folder;
    std::filesystem::path m_aside;
    std::mt19937& m_random;
    std::time_t m_time = 0;
    std::function<void()> m_look;
    std::map<std::string, TroubleCount> m_counts;

    /// How many operations each command did when it ran to its end last.
    std::map<std::string, int> m_operations;
};

} // namespace year_test

#pragma once

#include <filesystem>
#include <functional>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/running_program.h"
#include "tests/support/temp_directory.h"

namespace endtoend {

using test_support::Arguments;
using test_support::joined;
using test_support::Outcome;

/// The names of all commands of the program.
std::vector<std::string> const& allCommands();

/// Takes the summary that long commands end with out of the words on standard error, and returns it;
/// empty if there is none.
std::string takeSummary(std::string& words);

/// What a run of the program left behind. Its words on standard error are without the summary that
/// long commands end with.
struct ToolOutcome : Outcome {
    std::string summary;
};

/// The program kelm, running.
class RunningTool : public test_support::RunningProgram {
public:
    /// `prepare` as for `RunningProgram`.
    RunningTool(std::filesystem::path const& folder, Arguments const& arguments,
                std::function<void()> const& prepare = {});

    ToolOutcome finish();
};

/// Runs the program in a folder of its own, as a user would.
class ToolTest : public ::testing::Test {
protected:
    ToolTest();

    std::string path(std::string const& name) const { return (m_folder.path() / name).string(); }
    std::filesystem::path const& folder() const { return m_folder.path(); }

    ToolOutcome run(Arguments const& arguments, std::string const& input = "") const;

    /// Runs the program, expects status 0 and no words on standard error but the summary of a long
    /// command, and returns its output.
    std::string runWell(Arguments const& arguments) const;

    /// Runs the program, expects that status and one line on standard error, and returns the line.
    std::string runBadly(int status, Arguments const& arguments) const;

    /// Runs the program, expects status 0, and returns how many of its operations changed files or
    /// folders or brought them to the device.
    int countOperations(Arguments const& arguments) const;

    /// Runs the program and kills it right behind so many of these operations. False if it was done
    /// before. What it brings to the device stays in the cache, which a kill cannot tell.
    bool runAndKillBehind(int operations, Arguments const& arguments) const;

    /// Runs the program, which gets the signal right behind the first of these operations.
    ToolOutcome runAndSignalBehindTheFirst(int signal, Arguments const& arguments) const;

    /// Waits until the program has made a file, or has ended.
    void waitForFile(RunningTool const& tool, std::string const& name) const;

    /// The same, and then until the file has been written to so many times.
    void waitForWrites(RunningTool const& tool, std::string const& name, int count) const;

    /// The names in the folder.
    std::set<std::string> listFiles() const;

    std::string readFile(std::string const& name) const;
    void writeFile(std::string const& name, std::string const& bytes) const;

    /// Replaces bytes of a file.
    void patchFile(std::string const& name, std::size_t position, std::string const& bytes) const;

    /// An image of `sizeBytes` bytes: stretches of zeros, of text, and of noise, by the seed.
    static std::string makeImage(std::size_t sizeBytes, unsigned int seed);

private:
    test_support::TempDirectory m_folder;
};

} // namespace endtoend

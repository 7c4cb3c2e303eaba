#pragma once

#include <filesystem>
#include <functional>
#include <initializer_list>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <sys/types.h>

#include "tests/support/temp_directory.h"

namespace endtoend {

using Arguments = std::vector<std::string>;

/// What a run of the program left behind.
struct Outcome {
    /// The exit status, -1 if a signal ended the program.
    int status = -1;
    std::string out;
    std::string err;
};

/// A program that runs, with standard input and output as pipes.
class RunningTool {
public:
    explicit RunningTool(std::filesystem::path const& folder, Arguments const& arguments);
    RunningTool(RunningTool const&) = delete;
    RunningTool& operator=(RunningTool const&) = delete;
    ~RunningTool();

    /// Writes to the program's standard input, as far as the program reads.
    void feed(std::string const& bytes);
    void closeInput();

    /// Reads that many bytes of the program's standard output, fewer at its end.
    std::string readOutput(std::size_t bytes);

    void signal(int number);

    /// Closes the program's input, reads all of its output, and waits for its end.
    Outcome finish();

private:
    pid_t m_id = -1;
    int m_input = -1;
    int m_output = -1;
    std::filesystem::path m_errorFile;
};

/// Runs the program in a folder of its own, as a user would.
class ToolTest : public ::testing::Test {
protected:
    ToolTest();

    std::string path(std::string const& name) const { return (m_folder.path() / name).string(); }
    std::filesystem::path const& folder() const { return m_folder.path(); }

    Outcome run(Arguments const& arguments, std::string const& input = "") const;

    /// Runs the program, expects status 0 and no words on standard error, and returns its output.
    std::string runWell(Arguments const& arguments) const;

    /// Runs the program, expects that status and one line on standard error, and returns the line.
    std::string runBadly(int status, Arguments const& arguments) const;

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

#pragma once

#include <filesystem>
#include <functional>
#include <initializer_list>
#include <string>
#include <vector>

#include <sys/types.h>

namespace test_support {

using Arguments = std::vector<std::string>;

/// The parts one behind the other.
Arguments joined(std::initializer_list<Arguments> parts);

/// What a run of a program left behind.
struct Outcome {
    /// The exit status, -1 if a signal ended the program.
    int status = -1;
    std::string out;
    std::string err;
};

/// A program that runs as a process, with standard input and output as pipes, and without a
/// terminal on which it could ask for something.
class RunningProgram {
public:
    /// Starts a program in a folder. `command` is the program, looked for in the search path if it
    /// is a bare name, and its arguments. `prepare` runs in the new process before the program; it
    /// may change what a process hands down: limits, ignored signals, open files, the environment.
    RunningProgram(std::filesystem::path const& folder, Arguments const& command,
                   std::function<void()> const& prepare = {});
    RunningProgram(RunningProgram const&) = delete;
    RunningProgram& operator=(RunningProgram const&) = delete;

    /// Waits for the end, unless `finish` has.
    ~RunningProgram();

    pid_t id() const { return m_id; }

    /// Writes to the program's standard input, as far as the program reads.
    void feed(std::string const& bytes);
    void closeInput();

    /// Reads that many bytes of the program's standard output, fewer at its end.
    std::string readOutput(std::size_t bytes);

    /// What the program has written to its standard error so far.
    std::string readErrors() const;

    /// Does nothing once `finish` was called.
    void signal(int number);

    /// Lets the program stand still, so that a test can look at what it has done so far and choose
    /// what happens next. Returns whether it does; not if it has ended.
    bool pause();

    /// Ends a `pause`.
    void resume();

    /// Closes the program's input, reads all of its output, and waits for its end.
    Outcome finish();

private:
    pid_t m_id = -1;
    int m_input = -1;
    int m_output = -1;
    std::filesystem::path m_errorFile;
};

/// A file descriptor of a process, which polls as readable once the process has ended; to be
/// closed.
int openProcess(pid_t id);

} // namespace test_support

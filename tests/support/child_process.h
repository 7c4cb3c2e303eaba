#pragma once

#include <functional>

#include <sys/types.h>

namespace test_support {

/// One end of a line between a test and its child process, over which single characters go.
class Line {
public:
    explicit Line(int descriptor) : m_descriptor(descriptor) {}
    Line(Line&& other) noexcept;
    Line& operator=(Line const&) = delete;
    ~Line();

    void send(char character) const;

    /// Waits for the next character; 0 if the other end is gone.
    char receive() const;

private:
    int m_descriptor;
};

/// Runs a function in a process forked from the test, for what only several processes show: locks,
/// and ends without destructors. Test and child wait for each other by characters on a line, never
/// by time. The test must have no threads.
class ChildProcess {
public:
    /// `body` returns the exit code of the child, which ends without running the test's
    /// destructors. An exception out of it is printed and gives exit code 99.
    explicit ChildProcess(std::function<int(Line const&)> const& body);
    ChildProcess(ChildProcess&&) noexcept;
    ChildProcess& operator=(ChildProcess const&) = delete;

    /// Kills the child if it still runs.
    ~ChildProcess();

    Line const& line() const { return m_line; }

    /// Ends the child by SIGKILL and waits until it has gone.
    void kill();

    /// Waits for the end and returns the exit code, -1 if a signal ended the child.
    int wait();

private:
    struct Started {
        Line line;
        pid_t id;
    };

    explicit ChildProcess(Started started);
    static Started start(std::function<int(Line const&)> const& body);

    Line m_line;
    pid_t m_id;
};

} // namespace test_support

#include "tests/support/terminal_play.h"

#include <cerrno>
#include <system_error>

#include <gtest/gtest.h>
#include <pty.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/support/signals.h"

namespace test_support {

TerminalPlay playOnTerminal(std::function<int()> const& body, Dialogue const& dialogue) {
    int master = -1;
    pid_t const child = ::forkpty(&master, nullptr, nullptr, nullptr);
    if (child < 0)
        throw std::system_error(errno, std::generic_category(), "forkpty");
    if (child == 0) {
        resetSignals();
        ::_exit(body());
    }
    TerminalPlay play;
    auto next = dialogue.begin();
    char part[4096];
    for (ssize_t count = 0; (count = ::read(master, part, sizeof part)) > 0;) {
        play.shown.append(part, static_cast<std::size_t>(count));
        while (next != dialogue.end() && play.shown.find(next->first) != std::string::npos) {
            EXPECT_EQ(static_cast<ssize_t>(next->second.size()),
                      ::write(master, next->second.data(), next->second.size()));
            ++next;
        }
    }
    EXPECT_TRUE(next == dialogue.end()) << play.shown;
    ::close(master);
    int status = 0;
    ::waitpid(child, &status, 0);
    play.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return play;
}

} // namespace test_support

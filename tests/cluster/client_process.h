#pragma once

#include <string>

#include "tests/support/running_program.h"
#include "yx/uri.h"

namespace cluster_client {

/// The argument with which this program is such a process, and no test.
inline constexpr char kClientOption[] = "--client";

/// Does what standard input tells, a thing a line, until it ends, and answers with a line each.
void obey();

/// A process with a client of its own, which does what it is told, one thing after the other. It is
/// this program again, since a process that is connected cannot fork another client.
///
/// | told          | does                                                                       |
/// |---------------|----------------------------------------------------------------------------|
/// | `open URI`    | opens or makes a file for writing                                          |
/// | `lock`        | locks all of it, alone                                                     |
/// | `write TEXT`  | writes at its start                                                        |
/// | `flush`       | flushes it                                                                 |
/// | `fill URI`    | makes a disk, stores a grain of "1" and flushes; then one of "2" in memory |
class ClientProcess {
public:
    ClientProcess();

    /// What came of it: "done", or the message of the error.
    std::string tell(std::string const& what);
    std::string tell(std::string const& what, yx::CURI const& uri) {
        return tell(what + " " + uri.toString(true).toStdString());
    }

    /// Ends the process by SIGKILL, and waits until it has ended.
    void kill();

    bool pause() { return m_program.pause(); }
    void resume() { m_program.resume(); }

private:
    test_support::RunningProgram m_program;
};

} // namespace cluster_client

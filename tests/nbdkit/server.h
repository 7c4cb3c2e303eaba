#pragma once

#include <filesystem>
#include <functional>
#include <string>

#include "tests/support/running_program.h"

namespace nbdkit {

using test_support::Arguments;
using test_support::joined;
using test_support::Outcome;

/// What the process of a server gets beside its arguments.
struct ServerSurroundings {
    /// Runs in the new process before nbdkit.
    std::function<void()> prepare;

    /// A library to be loaded before all others.
    std::string preload;
};

/// nbdkit, serving on a Unix socket. Clients can connect from the start: until it is ready, and
/// also if it refuses to serve, they wait in the socket's queue.
class Server {
public:
    /// `arguments` stand behind "nbdkit": options, plugin and parameters.
    Server(std::filesystem::path const& folder, Arguments const& arguments,
           ServerSurroundings const& surroundings = {});
    Server(Server const&) = delete;
    Server& operator=(Server const&) = delete;

    /// Stops the server.
    ~Server();

    std::string const& socketPath() const { return m_socketPath; }
    std::string uri() const { return "nbd+unix:///?socket=" + m_socketPath; }

    /// The first eight bytes that whoever connects is sent, once the server is ready.
    std::string greeting() const;

    pid_t id() const { return m_program.id(); }

    /// Ends the server as a user would, or waits for the end of one that refuses to serve.
    Outcome stop();
    Outcome waitForEnd();

    /// Ends the server at once.
    void kill();

private:
    /// Listens in place of nbdkit, which takes the socket over.
    class ListeningSocket {
    public:
        explicit ListeningSocket(std::string const& path);
        ListeningSocket(ListeningSocket const&) = delete;
        ListeningSocket& operator=(ListeningSocket const&) = delete;
        ~ListeningSocket();
        int get() const { return m_descriptor; }

    private:
        int m_descriptor;
    };

    static test_support::RunningProgram start(std::filesystem::path const& folder,
                                              std::string const& socketPath,
                                              Arguments const& arguments,
                                              ServerSurroundings const& surroundings);

    std::string m_socketPath;
    test_support::RunningProgram m_program;
    bool m_isRunning = true;
};

} // namespace nbdkit

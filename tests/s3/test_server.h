#pragma once

#include <atomic>
#include <condition_variable>
#include <filesystem>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/temp_directory.h"

struct ssl_ctx_st;
struct ssl_st;

namespace s3_test {

/// A request as a server gets it.
struct Request {
    std::string method;

    /// As they were sent, escaped.
    std::string path;
    std::string query;

    /// By names in lower case.
    std::map<std::string, std::string> headers;
    std::string body;

    std::string header(std::string const& name) const;
};

/// What it answers.
struct Reply {
    int status = 200;
    std::map<std::string, std::string> headers = {};
    std::string body = {};

    /// What "Content-Length" says; -1 for the truth.
    long long claimedLength = -1;

    /// After so many bytes of the body the connection is closed; -1 for never.
    long long breakAfterBytes = -1;

    /// After so many bytes nothing more comes, until the client or the server ends; -1 for never.
    long long stallAfterBytes = -1;
};

/// A server on the loopback address with answers of the test's choice. It speaks HTTP/1.1, one
/// thread for each connection.
class TestServer {
public:
    using Handler = std::function<Reply(Request const&)>;

    enum class Protocol {
        Plain,
        Encrypted, ///< with a certificate of its own for 127.0.0.1, see `getCertificateFile`
    };

    /// `handler` is called by one thread at a time.
    explicit TestServer(Handler handler, Protocol protocol = Protocol::Plain);
    TestServer(TestServer const&) = delete;
    TestServer& operator=(TestServer const&) = delete;
    ~TestServer();

    /// "127.0.0.1:PORT"
    std::string getAddress() const;
    std::string getCertificateFile() const;

    /// What was asked so far.
    std::vector<Request> getRequests() const;
    void forgetRequests();

    /// The requests with that method.
    int count(std::string const& method) const;

    /// How many connections were accepted.
    int countConnections() const { return m_connections; }

    /// Returns once a reply stands still because of `stallAfterBytes`.
    void waitForStall();

private:
    class Connection;

    void makeCertificate();
    void accept();
    Reply answer(Request const& request);
    void beginStall();

    Handler m_handler;
    test_support::TempDirectory m_folder;
    ssl_ctx_st* m_tls = nullptr;
    int m_socket = -1;
    int m_port = 0;
    std::atomic<int> m_connections{0};

    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    std::vector<Request> m_requests;
    bool m_isStalled = false;

    std::mutex m_handlerMutex;
    std::mutex m_connectionsMutex;
    std::list<std::unique_ptr<Connection>> m_open;
    std::thread m_acceptor;
};

} // namespace s3_test

#include "tests/s3/test_server.h"

#include <algorithm>
#include <cstdio>
#include <stdexcept>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>
#include <sys/socket.h>
#include <unistd.h>

#include "integrations/s3/escaped_text.h"

namespace s3_test {

namespace {

constexpr std::size_t kReadBytes = 65536;

[[noreturn]] void failServer(char const* what) {
    throw std::runtime_error(std::string("test server: cannot ") + what);
}

Request parseHead(std::string const& head) {
    Request request;
    std::size_t const endOfLine = head.find("\r\n");
    std::string const line = head.substr(0, endOfLine);
    std::size_t const first = line.find(' ');
    std::size_t const second = line.find(' ', first + 1);
    request.method = line.substr(0, first);
    std::string const target = line.substr(first + 1, second - first - 1);
    std::size_t const mark = std::min(target.find('?'), target.size());
    request.path = target.substr(0, mark);
    request.query = mark < target.size() ? target.substr(mark + 1) : "";
    for (std::size_t i = endOfLine; i < head.size();) {
        i += 2;
        std::size_t const end = std::min(head.find("\r\n", i), head.size());
        std::string const header = head.substr(i, end - i);
        std::size_t const colon = header.find(':');
        if (colon != std::string::npos)
            request.headers[kelm::s3::toLowerCase(header.substr(0, colon))] =
                kelm::s3::trim(header.substr(colon + 1));
        i = end;
    }
    return request;
}

std::string formatHead(Request const& request, Reply const& reply) {
    std::string head = "HTTP/1.1 " + std::to_string(reply.status) + " Scripted\r\n";
    for (auto const& [name, value] : reply.headers)
        head += name + ": " + value + "\r\n";
    long long const length =
        reply.claimedLength >= 0 ? reply.claimedLength : static_cast<long long>(reply.body.size());
    bool const isSetByTest = reply.headers.contains("Content-Length");
    if (!isSetByTest && (request.method != "HEAD" || reply.claimedLength >= 0))
        head += "Content-Length: " + std::to_string(length) + "\r\n";
    return head + "\r\n";
}

} // namespace

std::string Request::header(std::string const& name) const {
    auto const found = headers.find(name);
    return found == headers.end() ? "" : found->second;
}

/// One client's connection, served by a thread of its own.
class TestServer::Connection {
public:
    Connection(TestServer& server, int socket) : m_server(server), m_socket(socket) {
        m_thread = std::thread([this] { serve(); });
    }
    Connection(Connection const&) = delete;
    Connection& operator=(Connection const&) = delete;

    ~Connection() {
        ::shutdown(m_socket, SHUT_RDWR);
        m_thread.join();
        ::close(m_socket);
    }

private:
    void serve() {
        if (m_server.m_tls) {
            m_tls = SSL_new(m_server.m_tls);
            SSL_set_fd(m_tls, m_socket);
        }
        if (!m_tls || SSL_accept(m_tls) == 1) {
            while (serveOne()) {
            }
        }
        ::shutdown(m_socket, SHUT_RDWR);
        if (m_tls)
            SSL_free(m_tls);
    }

    bool serveOne() {
        std::size_t end = std::string::npos;
        while ((end = m_input.find("\r\n\r\n")) == std::string::npos) {
            if (!receive())
                return false;
        }
        Request request = parseHead(m_input.substr(0, end));
        m_input.erase(0, end + 4);
        std::string const length = request.header("content-length");
        std::size_t const bodyBytes = length.empty() ? 0 : std::stoul(length);
        while (m_input.size() < bodyBytes) {
            if (!receive())
                return false;
        }
        request.body = m_input.substr(0, bodyBytes);
        m_input.erase(0, bodyBytes);
        return reply(request, m_server.answer(request));
    }

    bool reply(Request const& request, Reply const& reply) {
        if (!send(formatHead(request, reply)))
            return false;
        if (request.method == "HEAD")
            return true;
        if (reply.breakAfterBytes >= 0) {
            send(reply.body.substr(0, static_cast<std::size_t>(reply.breakAfterBytes)));
            return false;
        }
        if (reply.stallAfterBytes >= 0) {
            send(reply.body.substr(0, static_cast<std::size_t>(reply.stallAfterBytes)));
            m_server.beginStall();
            // Until the other end closes, or this server.
            while (receive()) {
            }
            return false;
        }
        return send(reply.body);
    }

    bool receive() {
        std::string buffer(kReadBytes, '\0');
        int const size = static_cast<int>(buffer.size());
        long const count = m_tls ? SSL_read(m_tls, buffer.data(), size)
                                 : ::recv(m_socket, buffer.data(), buffer.size(), 0);
        if (count <= 0)
            return false;
        m_input.append(buffer, 0, static_cast<std::size_t>(count));
        return true;
    }

    bool send(std::string const& text) {
        std::size_t done = 0;
        while (done < text.size()) {
            std::size_t const left = text.size() - done;
            long const count = m_tls ? SSL_write(m_tls, text.data() + done, static_cast<int>(left))
                                     : ::send(m_socket, text.data() + done, left, MSG_NOSIGNAL);
            if (count <= 0)
                return false;
            done += static_cast<std::size_t>(count);
        }
        return true;
    }

    TestServer& m_server;
    int m_socket;
    SSL* m_tls = nullptr;
    std::string m_input;
    std::thread m_thread;
};

TestServer::TestServer(Handler handler, Protocol protocol) : m_handler(std::move(handler)) {
    if (protocol == Protocol::Encrypted)
        makeCertificate();
    m_socket = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = ::htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    constexpr int kWaiting = 64;
    if (m_socket < 0 ||
        ::bind(m_socket, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(m_socket, kWaiting) != 0 ||
        ::getsockname(m_socket, reinterpret_cast<sockaddr*>(&address), &size) != 0)
        failServer("listen");
    m_port = ::ntohs(address.sin_port);
    m_acceptor = std::thread([this] { accept(); });
}

TestServer::~TestServer() {
    ::shutdown(m_socket, SHUT_RDWR);
    m_acceptor.join();
    m_open.clear();
    ::close(m_socket);
    SSL_CTX_free(m_tls);
}

std::string TestServer::getAddress() const {
    return "127.0.0.1:" + std::to_string(m_port);
}

std::string TestServer::getCertificateFile() const {
    return (m_folder.path() / "certificate.pem").string();
}

std::vector<Request> TestServer::getRequests() const {
    std::lock_guard const guard(m_mutex);
    return m_requests;
}

void TestServer::forgetRequests() {
    std::lock_guard const guard(m_mutex);
    m_requests.clear();
}

int TestServer::count(std::string const& method) const {
    std::lock_guard const guard(m_mutex);
    return static_cast<int>(std::ranges::count(m_requests, method, &Request::method));
}

void TestServer::waitForStall() {
    std::unique_lock lock(m_mutex);
    m_changed.wait(lock, [this] { return m_isStalled; });
}

void TestServer::beginStall() {
    std::lock_guard const guard(m_mutex);
    m_isStalled = true;
    m_changed.notify_all();
}

void TestServer::accept() {
    while (true) {
        int const socket = ::accept4(m_socket, nullptr, nullptr, SOCK_CLOEXEC);
        if (socket < 0)
            return;
        ++m_connections;
        int const isOn = 1;
        ::setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &isOn, sizeof isOn);
        std::lock_guard const guard(m_connectionsMutex);
        m_open.push_back(std::make_unique<Connection>(*this, socket));
    }
}

Reply TestServer::answer(Request const& request) {
    {
        std::lock_guard const guard(m_mutex);
        m_requests.push_back(request);
    }
    std::lock_guard const guard(m_handlerMutex);
    return m_handler(request);
}

void TestServer::makeCertificate() {
    constexpr long kSeconds = 86400;
    EVP_PKEY* const key = EVP_EC_gen("P-256");
    X509* const certificate = X509_new();
    X509_set_version(certificate, X509_VERSION_3);
    ASN1_INTEGER_set(X509_get_serialNumber(certificate), 1);
    X509_gmtime_adj(X509_getm_notBefore(certificate), -kSeconds);
    X509_gmtime_adj(X509_getm_notAfter(certificate), kSeconds);
    X509_set_pubkey(certificate, key);
    X509_NAME* const name = X509_get_subject_name(certificate);
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                               reinterpret_cast<unsigned char const*>("test"), -1, -1, 0);
    X509_set_issuer_name(certificate, name);
    for (auto const& [kind, value] :
         {std::pair(NID_subject_alt_name, "IP:127.0.0.1"), {NID_basic_constraints, "CA:TRUE"}}) {
        X509_EXTENSION* const extension = X509V3_EXT_conf_nid(nullptr, nullptr, kind, value);
        X509_add_ext(certificate, extension, -1);
        X509_EXTENSION_free(extension);
    }
    X509_sign(certificate, key, EVP_sha256());
    std::FILE* const file = std::fopen(getCertificateFile().c_str(), "w");
    bool const isWritten = file && PEM_write_X509(file, certificate) == 1;
    if (file)
        std::fclose(file);
    m_tls = SSL_CTX_new(TLS_server_method());
    bool const isReady = isWritten && SSL_CTX_use_certificate(m_tls, certificate) == 1 &&
                         SSL_CTX_use_PrivateKey(m_tls, key) == 1;
    X509_free(certificate);
    EVP_PKEY_free(key);
    if (!isReady)
        failServer("make a certificate");
}

} // namespace s3_test

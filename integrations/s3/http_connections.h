#pragma once

#include <array>
#include <atomic>
#include <map>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <sys/types.h>

namespace kelm::s3 {

/// A request as it goes out.
struct HTTPRequest {
    std::string method = "GET";
    std::string url;
    std::vector<std::pair<std::string, std::string>> headers;
    std::string_view body;

    /// An answer of success with a longer body is broken off.
    std::size_t maxBodyBytes = 0;

    /// Ends the transfer once it is set; may be null.
    std::atomic<bool> const* isCancelled = nullptr;
};

/// What became of a request.
struct HTTPAnswer {
    /// 0 if no whole answer came.
    int status = 0;

    /// Why none came, in words without a full stop; empty if one did.
    std::string failure;

    /// Whether a failure may be gone when the request is sent again.
    bool isPassingFailure = false;

    /// Whether the body was longer than expected, and was broken off.
    bool isTooLong = false;

    /// By names in lower case.
    std::map<std::string, std::string> headers;
    std::string body;

    /// The value of a header, empty if there is none.
    std::string const& header(std::string const& name) const;
};

/// Connections to servers, which are kept for later requests to them. Serves any number of threads,
/// of the process that made it; in a process that was forked off it may only be destroyed. Connects
/// to nothing by itself.
class HTTPConnections {
public:
    /// `certificatesFile` as in `ServerSettings`. The flag ends all transfers once it is set,
    /// within about a second, and must outlive this object.
    HTTPConnections(std::string certificatesFile, std::atomic<bool> const& isAbandoned);
    HTTPConnections(HTTPConnections const&) = delete;
    HTTPConnections& operator=(HTTPConnections const&) = delete;
    ~HTTPConnections();

    /// Sends a request once, and follows nothing. A transfer of which nothing comes or goes for
    /// half a minute fails.
    HTTPAnswer send(HTTPRequest const& request);

private:
    /// One for each kind of data that the handles share.
    static constexpr std::size_t kShareLocks = 16;

    void* take();
    void giveBack(void* handle);
    static void lockShare(void* handle, int data, int access, void* self);
    static void unlockShare(void* handle, int data, void* self);

    std::string m_certificatesFile;
    std::atomic<bool> const& m_isAbandoned;
    pid_t m_process;
    void* m_share = nullptr;
    std::array<std::mutex, kShareLocks> m_shareMutexes;
    std::mutex m_mutex;
    std::vector<void*> m_idle;
};

} // namespace kelm::s3

#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <string_view>

#include "integrations/s3/abandonment.h"
#include "integrations/s3/http_connections.h"
#include "integrations/s3/object_location.h"
#include "integrations/s3/retry_policy.h"
#include "integrations/s3/server_settings.h"

namespace kelm::s3 {

/// What is asked of a server about an object, or about its bucket where the key is empty.
struct ObjectRequest {
    std::string method = "GET";
    ObjectLocation location;
    QueryParameters query;

    /// By names in lower case. Those of the signature are added.
    std::map<std::string, std::string> headers;
    std::string_view body;

    /// See `HTTPRequest`.
    std::size_t maxBodyBytes = 0;
    std::atomic<bool> const* isCancelled = nullptr;

    /// How the message begins if the server cannot be reached.
    char const* beginning = "";
};

/// Sends requests, signs them, follows where the server leads, and tries again what may succeed
/// then. Serves any number of threads, of the process that made it.
class ObjectServer {
public:
    ObjectServer(ServerSettings settings, RetryPolicy policy,
                 std::shared_ptr<Abandonment> abandonment);

    /// The last answer, whatever its status. Tried again, as `RetryPolicy` says, are 429, 500, 502,
    /// 503, 504 and what broke off; with a "Retry-After" not earlier than that. No whole answer at
    /// all is `yx::CIOError` `IOFailure` with "uri", and so is the end of everything
    /// (`Abandonment`) or of this request (`isCancelled`).
    ///
    /// With `https`, up to five times another `https` address is asked that the server names. The
    /// usual server of buckets is asked again in the region that it names.
    HTTPAnswer send(ObjectRequest const& request, yx::CURI const& uri);

    /// What tells the place of an object from all others: scheme, server and bucket.
    std::string describePlace(ObjectLocation const& location) const;

    /// The time that `RetryPolicy` counts.
    RetryPolicy::Milliseconds now() const;

    bool isAbandoned() const { return m_abandonment->isSet(); }

private:
    struct Address {
        std::string scheme;
        std::string host;
        std::string escapedPath;
        std::string region;
    };

    HTTPAnswer sendRepeatedly(ObjectRequest const& request, std::string const& otherURL);
    HTTPAnswer sendOnce(ObjectRequest const& request, std::string const& otherURL);
    std::vector<std::pair<std::string, std::string>> makeHeaders(ObjectRequest const& request,
                                                                 Address const& address) const;
    Address makeAddress(ObjectLocation const& location);
    bool learnRegion(ObjectRequest const& request, HTTPAnswer const& answer);
    RetryPolicy::Milliseconds chooseDelay(int attempt);
    void wait(RetryPolicy::Milliseconds duration);

    ServerSettings const m_settings;
    RetryPolicy const m_policy;
    std::shared_ptr<Abandonment> m_abandonment;
    HTTPConnections m_connections;

    std::mutex m_mutex;
    std::minstd_rand m_random;

    /// Of the buckets that lie in another region than the settings say.
    std::map<std::string, std::string> m_regions;
};

} // namespace kelm::s3

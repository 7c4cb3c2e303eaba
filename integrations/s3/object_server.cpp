#include "integrations/s3/object_server.h"

#include <algorithm>
#include <charconv>
#include <ctime>
#include <optional>

#include <curl/curl.h>

#include "integrations/s3/digests.h"
#include "integrations/s3/escaped_text.h"
#include "integrations/s3/http_status.h"
#include "integrations/s3/server_error.h"

namespace kelm::s3 {

namespace {

using Milliseconds = RetryPolicy::Milliseconds;

constexpr int kMaxRedirections = 5;
constexpr char kUsualServer[] = "amazonaws.com";

bool isToBeRepeated(HTTPAnswer const& answer) {
    switch (answer.status) {
    case 0:
        return answer.isPassingFailure;
    case kTooManyRequests:
    case kInternalServerError:
    case kBadGateway:
    case kServiceUnavailable:
    case kGatewayTimeout:
        return true;
    case kBadRequest:
        // The server has waited for the body in vain.
        return findErrorCode(answer) == "RequestTimeout";
    default:
        return false;
    }
}

bool isRedirection(int status) {
    return status == kMovedPermanently || status == kFound || status == kSeeOther ||
           status == kTemporaryRedirect || status == kPermanentRedirect;
}

/// How long the server asks to wait; 0 if it does not.
Milliseconds getRetryAfter(HTTPAnswer const& answer) {
    std::string const& text = answer.header("retry-after");
    long seconds = 0;
    auto const [end, error] = std::from_chars(text.data(), text.data() + text.size(), seconds);
    if (error != std::errc() || end != text.data() + text.size()) {
        std::time_t const date = curl_getdate(text.c_str(), nullptr);
        seconds = date == -1 ? 0 : static_cast<long>(date - std::time(nullptr));
    }
    constexpr long kNeverSeconds = 1000000;
    return std::chrono::seconds(std::clamp(seconds, 0L, kNeverSeconds));
}

struct EndURL {
    void operator()(CURLU* url) const { curl_url_cleanup(url); }
};

/// Where a "Location" leads from a URL; empty if that is no `https` address.
std::string resolveRedirection(std::string const& url, std::string const& location) {
    std::unique_ptr<CURLU, EndURL> const parts(curl_url());
    if (!parts || location.empty() ||
        curl_url_set(parts.get(), CURLUPART_URL, url.c_str(), 0) != CURLUE_OK ||
        curl_url_set(parts.get(), CURLUPART_URL, location.c_str(), 0) != CURLUE_OK)
        return {};
    curl_url_set(parts.get(), CURLUPART_USER, nullptr, 0);
    curl_url_set(parts.get(), CURLUPART_PASSWORD, nullptr, 0);
    curl_url_set(parts.get(), CURLUPART_FRAGMENT, nullptr, 0);
    char* text = nullptr;
    if (curl_url_get(parts.get(), CURLUPART_URL, &text, 0) != CURLUE_OK)
        return {};
    std::string target = text;
    curl_free(text);
    return target.starts_with("https://") ? target : "";
}

bool isRegionName(std::string const& name) {
    return !name.empty() &&
           name.find_first_not_of("abcdefghijklmnopqrstuvwxyz0123456789-") == std::string::npos;
}

std::string getDomainOf(std::string const& region) {
    return std::string(kUsualServer) + (region.starts_with("cn-") ? ".cn" : "");
}

} // namespace

ObjectServer::ObjectServer(ServerSettings settings, RetryPolicy policy,
                           std::shared_ptr<Abandonment> abandonment)
    : m_settings(std::move(settings)),
      m_policy(std::move(policy)),
      m_abandonment(std::move(abandonment)),
      m_connections(m_settings.certificatesFile, m_abandonment->getFlag()),
      m_random(std::random_device()()) {}

HTTPAnswer ObjectServer::send(ObjectRequest const& request, yx::CURI const& uri) {
    std::string url;
    for (int redirections = 0;; ++redirections) {
        HTTPAnswer answer = sendRepeatedly(request, url);
        if (m_abandonment->isSet())
            throw makeServerError(request.beginning, "The server was given up.", uri);
        if (answer.status == 0) {
            throw makeServerError(request.beginning,
                                  "The server does not answer: " + answer.failure + ".", uri);
        }
        if (request.location.isInBucket) {
            if (redirections > 0 || !learnRegion(request, answer))
                return answer;
            continue;
        }
        if (!isRedirection(answer.status) || redirections == kMaxRedirections)
            return answer;
        std::string const from =
            url.empty() ? "https://" + request.location.host + request.location.escapedPath : url;
        url = resolveRedirection(from, answer.header("location"));
        if (url.empty())
            return answer;
    }
}

HTTPAnswer ObjectServer::sendRepeatedly(ObjectRequest const& request, std::string const& otherURL) {
    Milliseconds const begin = now();
    for (int attempt = 1;; ++attempt) {
        HTTPAnswer answer = sendOnce(request, otherURL);
        bool const isCancelled = request.isCancelled && request.isCancelled->load();
        if (!isToBeRepeated(answer) || attempt >= m_policy.maxAttempts || isCancelled ||
            m_abandonment->isSet())
            return answer;
        Milliseconds const delay = std::max(chooseDelay(attempt), getRetryAfter(answer));
        if (now() - begin + delay > m_policy.maxTotal)
            return answer;
        wait(delay);
    }
}

HTTPAnswer ObjectServer::sendOnce(ObjectRequest const& request, std::string const& otherURL) {
    HTTPRequest sent;
    sent.method = request.method;
    sent.body = request.body;
    sent.maxBodyBytes = request.maxBodyBytes;
    sent.isCancelled = request.isCancelled;
    if (otherURL.empty()) {
        Address const address = makeAddress(request.location);
        sent.headers = makeHeaders(request, address);
        std::string const query = toQueryText(request.query);
        sent.url = address.scheme + "://" + address.host + address.escapedPath +
                   (query.empty() ? "" : "?" + query);
    } else {
        sent.headers.assign(request.headers.begin(), request.headers.end());
        sent.url = otherURL;
    }
    return m_connections.send(sent);
}

std::vector<std::pair<std::string, std::string>> ObjectServer::makeHeaders(
    ObjectRequest const& request, Address const& address) const {
    std::vector<std::pair<std::string, std::string>> headers(request.headers.begin(),
                                                             request.headers.end());
    if (!request.location.isInBucket || !m_settings.keys)
        return headers;
    SignedParts parts;
    parts.method = request.method;
    parts.escapedPath = address.escapedPath;
    parts.query = request.query;
    parts.payloadDigest = toHex(sha256(request.body));
    parts.headers["host"] = address.host;
    parts.headers["x-amz-date"] = formatSigningTime(std::time(nullptr));
    parts.headers["x-amz-content-sha256"] = parts.payloadDigest;
    if (!m_settings.keys->sessionToken.empty())
        parts.headers["x-amz-security-token"] = m_settings.keys->sessionToken;
    headers.insert(headers.end(), parts.headers.begin(), parts.headers.end());
    for (auto const& [name, value] : request.headers) {
        if (name == "content-md5" || name == "range" || name.starts_with("x-amz-"))
            parts.headers[name] = value;
    }
    headers.emplace_back("authorization",
                         makeAuthorization(parts, *m_settings.keys, address.region));
    return headers;
}

ObjectServer::Address ObjectServer::makeAddress(ObjectLocation const& location) {
    if (!location.isInBucket)
        return {"https", location.host, location.escapedPath, ""};
    Address address;
    address.region = m_settings.region;
    std::string const path = "/" + escape(location.key, true);
    if (m_settings.hasEndpoint()) {
        address.scheme = m_settings.endpointScheme;
        address.host = m_settings.endpointHost;
        address.escapedPath = m_settings.endpointPath + "/" + location.bucket + path;
        return address;
    }
    {
        std::lock_guard const guard(m_mutex);
        auto const learned = m_regions.find(location.bucket);
        if (learned != m_regions.end())
            address.region = learned->second;
    }
    std::string const server = "s3." + address.region + "." + getDomainOf(address.region);
    // The certificate is for one more label only, and a name of a host has no underscore.
    bool const isInHost = location.bucket.find_first_of("._") == std::string::npos;
    address.scheme = "https";
    address.host = isInHost ? location.bucket + "." + server : server;
    address.escapedPath = isInHost ? path : "/" + location.bucket + path;
    return address;
}

/// Whether the answer says that the bucket lies in another region than it was looked for in.
bool ObjectServer::learnRegion(ObjectRequest const& request, HTTPAnswer const& answer) {
    std::string const& region = answer.header("x-amz-bucket-region");
    if (m_settings.hasEndpoint() || answer.status < kFirstRedirection || !isRegionName(region) ||
        makeAddress(request.location).region == region)
        return false;
    std::lock_guard const guard(m_mutex);
    m_regions[request.location.bucket] = region;
    return true;
}

std::string ObjectServer::describePlace(ObjectLocation const& location) const {
    if (!location.isInBucket)
        return "https " + location.host;
    std::string const server =
        m_settings.hasEndpoint() ? m_settings.endpointHost + m_settings.endpointPath : kUsualServer;
    return "s3 " + server + " " + location.bucket;
}

Milliseconds ObjectServer::now() const {
    if (m_policy.now)
        return m_policy.now();
    return std::chrono::duration_cast<Milliseconds>(
        std::chrono::steady_clock::now().time_since_epoch());
}

Milliseconds ObjectServer::chooseDelay(int attempt) {
    Milliseconds delay = m_policy.firstDelay;
    for (int i = 1; i < attempt && delay < m_policy.maxDelay; ++i)
        delay *= 2;
    delay = std::min(delay, m_policy.maxDelay);
    std::lock_guard const guard(m_mutex);
    std::uniform_int_distribution<Milliseconds::rep> jitter(0, delay.count() / 2);
    return delay - Milliseconds(jitter(m_random));
}

void ObjectServer::wait(Milliseconds duration) {
    if (m_policy.wait)
        m_policy.wait(duration);
    else
        m_abandonment->wait(duration);
}

} // namespace kelm::s3

#include "integrations/s3/http_connections.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <new>

#include <curl/curl.h>
#include <unistd.h>

#include "integrations/s3/escaped_text.h"
#include "yx/error.h"

namespace kelm::s3 {

namespace {

constexpr long kConnectSeconds = 20;
constexpr long kStallSeconds = 30;
constexpr std::size_t kMaxIdleHandles = 16;

/// What is kept of the body of an answer that is no success, and how much of one is waited for.
constexpr std::size_t kMaxErrorBytes = 65536;

/// No memory is asked for in advance beyond this.
constexpr std::size_t kMaxReservedBytes = std::size_t{4} << 20;

/// A server that sends headers without end is broken off.
constexpr std::size_t kMaxHeaders = 256;

constexpr int kFirstSuccess = 200;
constexpr int kFirstNoSuccess = 300;

/// One exchange, as the callbacks of the library see it.
struct Exchange {
    HTTPRequest const& request;
    HTTPAnswer& answer;
    std::atomic<bool> const& isAbandoned;
    CURL* handle;
    std::size_t sentBytes = 0;

    bool isEnded() const {
        return isAbandoned.load() || (request.isCancelled && request.isCancelled->load());
    }
};

std::size_t takeHeader(char* data, std::size_t size, std::size_t count, void* context) {
    auto& exchange = *static_cast<Exchange*>(context);
    std::size_t const bytes = size * count;
    std::string_view const line(data, bytes);
    auto& headers = exchange.answer.headers;
    try {
        // What came before belongs to an answer that only said to go on.
        if (line.starts_with("HTTP/"))
            headers.clear();
        std::size_t const colon = line.find(':');
        if (colon != std::string_view::npos)
            headers[toLowerCase(trim(line.substr(0, colon)))] = trim(line.substr(colon + 1));
    } catch (std::bad_alloc const&) {
        return 0;
    }
    return headers.size() > kMaxHeaders ? 0 : bytes;
}

std::size_t takeBody(char* data, std::size_t size, std::size_t count, void* context) {
    auto& exchange = *static_cast<Exchange*>(context);
    std::size_t const bytes = size * count;
    long status = 0;
    curl_easy_getinfo(exchange.handle, CURLINFO_RESPONSE_CODE, &status);
    bool const isSuccess = status >= kFirstSuccess && status < kFirstNoSuccess;
    std::string& body = exchange.answer.body;
    std::size_t const limit = isSuccess ? exchange.request.maxBodyBytes : kMaxErrorBytes;
    if (bytes > limit - body.size()) {
        exchange.answer.isTooLong = true;
        return 0;
    }
    try {
        body.append(data, bytes);
    } catch (std::bad_alloc const&) {
        return 0;
    }
    return bytes;
}

std::size_t giveBody(char* target, std::size_t size, std::size_t count, void* context) {
    auto& exchange = *static_cast<Exchange*>(context);
    std::string_view const left = exchange.request.body.substr(exchange.sentBytes);
    std::size_t const bytes = std::min(size * count, left.size());
    std::memcpy(target, left.data(), bytes);
    exchange.sentBytes += bytes;
    return bytes;
}

/// Sends a body again on a connection that was closed before it was taken.
int seekBody(void* context, curl_off_t offset, int origin) {
    auto& exchange = *static_cast<Exchange*>(context);
    if (origin != SEEK_SET || offset < 0 ||
        static_cast<std::size_t>(offset) > exchange.request.body.size())
        return CURL_SEEKFUNC_CANTSEEK;
    exchange.sentBytes = static_cast<std::size_t>(offset);
    return CURL_SEEKFUNC_OK;
}

int watchProgress(void* context, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
    return static_cast<Exchange*>(context)->isEnded() ? 1 : 0;
}

/// Failures that another attempt does not mend.
bool isLasting(CURLcode code) {
    switch (code) {
    case CURLE_UNSUPPORTED_PROTOCOL:
    case CURLE_URL_MALFORMAT:
    case CURLE_PEER_FAILED_VERIFICATION:
    case CURLE_SSL_CACERT_BADFILE:
    case CURLE_SSL_ISSUER_ERROR:
    case CURLE_SSL_PINNEDPUBKEYNOTMATCH:
    case CURLE_SSL_INVALIDCERTSTATUS:
    case CURLE_OUT_OF_MEMORY:
    case CURLE_ABORTED_BY_CALLBACK:
    case CURLE_WRITE_ERROR:
        return true;
    default:
        return false;
    }
}

struct EndHeaders {
    void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};
using HeaderList = std::unique_ptr<curl_slist, EndHeaders>;

HeaderList makeHeaders(HTTPRequest const& request) {
    HeaderList list;
    auto const add = [&list](std::string const& line) {
        curl_slist* const longer = curl_slist_append(list.get(), line.c_str());
        if (!longer)
            throw std::bad_alloc();
        static_cast<void>(list.release());
        list.reset(longer);
    };
    for (auto const& [name, value] : request.headers) {
        std::string line = name;
        add(line.append(": ").append(value));
    }
    // The body follows at once, without a journey to ask for it.
    add("Expect:");
    return list;
}

void setUp(CURL* handle, Exchange& exchange, curl_slist* headers) {
    HTTPRequest const& request = exchange.request;
    curl_easy_setopt(handle, CURLOPT_URL, request.url.c_str());
    curl_easy_setopt(handle, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(handle, CURLOPT_PATH_AS_IS, 1L);
    curl_easy_setopt(handle, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(handle, CURLOPT_HTTPHEADER, headers);
    curl_easy_setopt(handle, CURLOPT_USERAGENT, "kelm");
    curl_easy_setopt(handle, CURLOPT_CONNECTTIMEOUT, kConnectSeconds);
    curl_easy_setopt(handle, CURLOPT_LOW_SPEED_LIMIT, 1L);
    curl_easy_setopt(handle, CURLOPT_LOW_SPEED_TIME, kStallSeconds);
    curl_easy_setopt(handle, CURLOPT_HEADERFUNCTION, takeHeader);
    curl_easy_setopt(handle, CURLOPT_HEADERDATA, &exchange);
    curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, takeBody);
    curl_easy_setopt(handle, CURLOPT_WRITEDATA, &exchange);
    curl_easy_setopt(handle, CURLOPT_XFERINFOFUNCTION, watchProgress);
    curl_easy_setopt(handle, CURLOPT_XFERINFODATA, &exchange);
    curl_easy_setopt(handle, CURLOPT_NOPROGRESS, 0L);
    if (request.method == "HEAD") {
        curl_easy_setopt(handle, CURLOPT_NOBODY, 1L);
    } else if (request.method == "PUT" || request.method == "POST") {
        curl_easy_setopt(handle, CURLOPT_UPLOAD, 1L);
        curl_easy_setopt(handle, CURLOPT_READFUNCTION, giveBody);
        curl_easy_setopt(handle, CURLOPT_READDATA, &exchange);
        curl_easy_setopt(handle, CURLOPT_SEEKFUNCTION, seekBody);
        curl_easy_setopt(handle, CURLOPT_SEEKDATA, &exchange);
        curl_easy_setopt(handle, CURLOPT_INFILESIZE_LARGE,
                         static_cast<curl_off_t>(request.body.size()));
    }
    if (request.method != "HEAD" && request.method != "GET")
        curl_easy_setopt(handle, CURLOPT_CUSTOMREQUEST, request.method.c_str());
}

} // namespace

std::string const& HTTPAnswer::header(std::string const& name) const {
    static std::string const none;
    auto const found = headers.find(name);
    return found == headers.end() ? none : found->second;
}

HTTPConnections::HTTPConnections(std::string certificatesFile, std::atomic<bool> const& isAbandoned)
    : m_certificatesFile(std::move(certificatesFile)),
      m_isAbandoned(isAbandoned),
      m_process(::getpid()) {
    static_assert(CURL_LOCK_DATA_LAST <= kShareLocks);
    m_idle.reserve(kMaxIdleHandles);
    // Counted by the library, and never taken back: others in the process may use it too.
    if (curl_global_init(CURL_GLOBAL_DEFAULT) != CURLE_OK)
        throw std::bad_alloc();
    CURLSH* const share = curl_share_init();
    if (!share)
        throw std::bad_alloc();
    m_share = share;
    curl_lock_function const lock = [](CURL* handle, curl_lock_data data, curl_lock_access access,
                                       void* self) { lockShare(handle, data, access, self); };
    curl_unlock_function const unlock = [](CURL* handle, curl_lock_data data, void* self) {
        unlockShare(handle, data, self);
    };
    curl_share_setopt(share, CURLSHOPT_LOCKFUNC, lock);
    curl_share_setopt(share, CURLSHOPT_UNLOCKFUNC, unlock);
    curl_share_setopt(share, CURLSHOPT_USERDATA, this);
    curl_share_setopt(share, CURLSHOPT_SHARE, CURL_LOCK_DATA_SSL_SESSION);
    curl_share_setopt(share, CURLSHOPT_SHARE, CURL_LOCK_DATA_DNS);
}

HTTPConnections::~HTTPConnections() {
    // To take leave of a server would end the connections of the process that this was forked from.
    if (m_process != ::getpid())
        return;
    for (void* const handle : m_idle)
        curl_easy_cleanup(handle);
    curl_share_cleanup(m_share);
}

void HTTPConnections::lockShare(void*, int data, int, void* self) {
    static_cast<HTTPConnections*>(self)->m_shareMutexes[static_cast<std::size_t>(data)].lock();
}

void HTTPConnections::unlockShare(void*, int data, void* self) {
    static_cast<HTTPConnections*>(self)->m_shareMutexes[static_cast<std::size_t>(data)].unlock();
}

void* HTTPConnections::take() {
    {
        std::lock_guard const guard(m_mutex);
        if (!m_idle.empty()) {
            void* const handle = m_idle.back();
            m_idle.pop_back();
            return handle;
        }
    }
    CURL* const handle = curl_easy_init();
    if (!handle)
        throw std::bad_alloc();
    return handle;
}

void HTTPConnections::giveBack(void* handle) {
    // The connection stays open in it, the settings do not.
    curl_easy_reset(handle);
    std::lock_guard const guard(m_mutex);
    if (m_idle.size() < kMaxIdleHandles)
        m_idle.push_back(handle);
    else
        curl_easy_cleanup(handle);
}

HTTPAnswer HTTPConnections::send(HTTPRequest const& request) {
    HTTPAnswer answer;
    answer.body.reserve(std::min(request.maxBodyBytes, kMaxReservedBytes));
    HeaderList const headers = makeHeaders(request);
    CURL* const handle = take();
    Exchange exchange{request, answer, m_isAbandoned, handle};
    setUp(handle, exchange, headers.get());
    curl_easy_setopt(handle, CURLOPT_SHARE, m_share);
    if (!m_certificatesFile.empty())
        curl_easy_setopt(handle, CURLOPT_CAINFO, m_certificatesFile.c_str());
    CURLcode const code =
        exchange.isEnded() ? CURLE_ABORTED_BY_CALLBACK : curl_easy_perform(handle);
    long status = 0;
    curl_easy_getinfo(handle, CURLINFO_RESPONSE_CODE, &status);
    giveBack(handle);
    if (code == CURLE_OK || answer.isTooLong) {
        answer.status = static_cast<int>(status);
    } else {
        answer.failure = curl_easy_strerror(code);
        answer.isPassingFailure = !isLasting(code);
    }
    return answer;
}

} // namespace kelm::s3

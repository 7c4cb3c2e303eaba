#include "integrations/s3/bucket_upload.h"

#include <algorithm>
#include <chrono>
#include <thread>
#include <utility>

#include "integrations/s3/digests.h"
#include "integrations/s3/escaped_text.h"
#include "integrations/s3/http_status.h"
#include "integrations/s3/server_error.h"
#include "integrations/s3/xml_text.h"
#include "yx/internal/stream_error.h"

namespace kelm::s3 {

namespace {

constexpr std::size_t kMaxAnswerBytes = 65536;
constexpr std::chrono::milliseconds kLookInterval{100};

/// Threads that are waited for when this ends.
class Workers {
public:
    Workers() = default;
    Workers(Workers const&) = delete;
    Workers& operator=(Workers const&) = delete;

    ~Workers() {
        for (std::thread& thread : m_threads)
            thread.join();
    }

    template <class Work>
    void start(Work work) {
        m_threads.reserve(m_threads.size() + 1);
        m_threads.emplace_back(std::move(work));
    }

private:
    std::vector<std::thread> m_threads;
};

} // namespace

BucketUpload::BucketUpload(ObjectServer& server, ObjectLocation const& location,
                           yx::CURI const& uri, host::Upload const& upload)
    : m_server(server),
      m_location(location),
      m_uri(uri),
      m_upload(upload),
      m_partBytes(choosePartBytes(upload.lengthBytes)) {}

__int64 BucketUpload::choosePartBytes(__int64 lengthBytes) {
    constexpr __int64 kStepBytes = __int64{1} << 20;
    __int64 const needed = lengthBytes / kMaxParts + (lengthBytes % kMaxParts != 0 ? 1 : 0);
    __int64 const rounded = (needed / kStepBytes + (needed % kStepBytes != 0 ? 1 : 0)) * kStepBytes;
    return std::max(kMinPartBytes, rounded);
}

void BucketUpload::run() {
    if (m_partBytes > kMaxPartBytes) {
        throw yx::CIOError(yx::CIOError::NoSpace,
                           yx::String(kCannotUpload) + "It is longer than an object may be.",
                           yx::detail::makeUriProps(m_uri), nullptr);
    }
    // A file of a single part needs no ceremony. Still it is sent by another thread than this one,
    // which looks whether to go on.
    bool const isInParts = m_upload.lengthBytes > m_partBytes;
    __int64 const count = std::max<__int64>(
        1, m_upload.lengthBytes / m_partBytes + (m_upload.lengthBytes % m_partBytes != 0 ? 1 : 0));
    m_parts.resize(static_cast<std::size_t>(count));
    if (isInParts)
        sendInParts();
    else
        sendParts();
    verifyResult();
}

void BucketUpload::sendInParts() {
    begin();
    try {
        sendParts();
        finish();
    } catch (...) {
        giveUp();
        throw;
    }
}

ObjectRequest BucketUpload::makeRequest(char const* method) const {
    ObjectRequest request;
    request.method = method;
    request.location = m_location;
    request.maxBodyBytes = kMaxAnswerBytes;
    request.beginning = kCannotUpload;
    request.isCancelled = &m_isCancelled;
    if (!m_uploadID.empty())
        request.query.emplace_back("uploadId", m_uploadID);
    return request;
}

void BucketUpload::begin() {
    ObjectRequest request = makeRequest("POST");
    request.query.emplace_back("uploads", "");
    HTTPAnswer const answer = m_server.send(request, m_uri);
    if (!isSuccess(answer.status))
        throw makeAnswerError(kCannotUpload, answer, m_uri);
    m_uploadID = findText(answer.body, "UploadId").value_or("");
    if (m_uploadID.empty())
        throw makeServerError(kCannotUpload, "The server has not begun an upload.", m_uri);
}

void BucketUpload::sendParts() {
    __int64 const threads = std::clamp<__int64>(kMaxMemoryBytes / m_partBytes, 1, kMaxThreads);
    std::size_t const count = std::min(m_parts.size(), static_cast<std::size_t>(threads));
    {
        Workers workers;
        try {
            for (std::size_t i = 0; i < count; ++i)
                workers.start([this] { work(); });
            watch(count);
        } catch (...) {
            fail(std::current_exception());
        }
    }
    if (m_error)
        std::rethrow_exception(m_error);
    if (m_upload.progress)
        m_upload.progress(m_doneBytes, m_upload.lengthBytes);
}

/// Returns when all workers have ended; the errors are theirs and those of the callbacks.
void BucketUpload::watch(std::size_t workers) {
    __int64 shownBytes = 0;
    std::unique_lock lock(m_mutex);
    while (m_endedWorkers < workers && !m_error) {
        m_changed.wait_for(lock, kLookInterval);
        __int64 const doneBytes = m_doneBytes;
        lock.unlock();
        if (m_upload.check)
            m_upload.check();
        if (m_upload.progress && doneBytes > shownBytes)
            m_upload.progress(doneBytes, m_upload.lengthBytes);
        shownBytes = doneBytes;
        lock.lock();
    }
}

/// Keeps the first error, and ends what is on its way.
void BucketUpload::fail(std::exception_ptr error) {
    m_isCancelled = true;
    std::lock_guard const guard(m_mutex);
    if (!m_error)
        m_error = std::move(error);
    m_changed.notify_all();
}

void BucketUpload::work() {
    try {
        __int64 index = 0;
        std::string data;
        while (takePart(index, data)) {
            if (m_uploadID.empty())
                sendWhole(data);
            else
                sendPart(index, data);
            std::lock_guard const guard(m_mutex);
            m_doneBytes += static_cast<__int64>(data.size());
            m_changed.notify_all();
        }
    } catch (...) {
        fail(std::current_exception());
    }
    std::lock_guard const guard(m_mutex);
    ++m_endedWorkers;
    m_changed.notify_all();
}

/// False if there is nothing left to do.
bool BucketUpload::takePart(__int64& index, std::string& data) {
    std::lock_guard const guard(m_readMutex);
    if (m_isCancelled || m_nextPart == static_cast<__int64>(m_parts.size()))
        return false;
    index = m_nextPart++;
    __int64 const position = index * m_partBytes;
    __int64 const sizeBytes = std::min(m_partBytes, m_upload.lengthBytes - position);
    data.resize(static_cast<std::size_t>(sizeBytes));
    if (sizeBytes > 0)
        m_upload.read(position, data.data(), static_cast<int>(sizeBytes));
    return true;
}

void BucketUpload::sendPart(__int64 index, std::string const& data) {
    Part& part = m_parts[static_cast<std::size_t>(index)];
    part.md5 = md5(data);
    ObjectRequest request = makeRequest("PUT");
    request.query.emplace_back("partNumber", std::to_string(index + 1));
    request.headers["content-md5"] = toBase64(part.md5);
    request.body = data;
    HTTPAnswer const answer = m_server.send(request, m_uri);
    if (!isSuccess(answer.status))
        throw makeAnswerError(kCannotUpload, answer, m_uri);
    part.entityTag = answer.header("etag");
    if (part.entityTag.empty())
        throw makeServerError(kCannotUpload, "The server has not confirmed a part.", m_uri);
}

void BucketUpload::sendWhole(std::string const& data) {
    m_parts.front().md5 = md5(data);
    ObjectRequest request = makeRequest("PUT");
    request.headers["content-md5"] = toBase64(m_parts.front().md5);
    request.body = data;
    if (!m_upload.replacesExisting)
        request.headers["if-none-match"] = "*";
    HTTPAnswer answer = sendLast(request);
    if (answer.status == kNotImplemented && !m_upload.replacesExisting) {
        request.headers.erase("if-none-match");
        verifyNothingIsThere();
        answer = sendLast(request);
    }
    acceptEnd(answer);
}

void BucketUpload::finish() {
    std::string list = "<CompleteMultipartUpload>";
    for (std::size_t i = 0; i < m_parts.size(); ++i) {
        list += "<Part><PartNumber>" + std::to_string(i + 1) + "</PartNumber><ETag>" +
                toXMLText(m_parts[i].entityTag) + "</ETag></Part>";
    }
    list += "</CompleteMultipartUpload>";
    if (!m_upload.replacesExisting)
        verifyNothingIsThere();
    HTTPAnswer answer = askToFinish(list, !m_upload.replacesExisting);
    if (answer.status == kNotImplemented && !m_upload.replacesExisting)
        answer = askToFinish(list, false);
    acceptEnd(answer);
}

HTTPAnswer BucketUpload::askToFinish(std::string const& list, bool hasCondition) {
    ObjectRequest request = makeRequest("POST");
    request.body = list;
    if (hasCondition)
        request.headers["if-none-match"] = "*";
    return sendLast(request);
}

/// Sends a request that makes the object. If its answer is lost, the object itself tells.
HTTPAnswer BucketUpload::sendLast(ObjectRequest const& request) {
    try {
        return m_server.send(request, m_uri);
    } catch (yx::CIOError const&) {
        if (m_isCancelled)
            throw;
        std::optional<HTTPAnswer> const object = findObject();
        if (!object || !isExpectedObject(*object))
            throw;
        HTTPAnswer done;
        done.status = kOK;
        return done;
    }
}

/// What the answer to the last request of an upload means. It may have been sent more than once, of
/// which one was enough; then the object that is there is this one.
void BucketUpload::acceptEnd(HTTPAnswer const& answer) {
    // The server may begin with success and end with an error.
    bool const isDone =
        isSuccess(answer.status) && !answer.isTooLong && findElements(answer.body, "Error").empty();
    if (isDone)
        return;
    std::optional<HTTPAnswer> const object = findObject();
    if (object && isExpectedObject(*object))
        return;
    if (answer.status == kPreconditionFailed || answer.status == kConflict)
        throwObjectExists(m_uri);
    if (isSuccess(answer.status)) {
        throw makeServerError(
            kCannotUpload, "The server could not put it together (" + findErrorCode(answer) + ").",
            m_uri);
    }
    throw makeAnswerError(kCannotUpload, answer, m_uri);
}

HTTPAnswer BucketUpload::askForObject() {
    ObjectRequest request = makeRequest("HEAD");
    request.query.clear();
    return m_server.send(request, m_uri);
}

/// What the server says of the object of that name; nothing if there is none, or none to be seen.
std::optional<HTTPAnswer> BucketUpload::findObject() {
    HTTPAnswer answer = askForObject();
    if (isSuccess(answer.status))
        return answer;
    if (answer.status == kNotFound || answer.status == kForbidden)
        return std::nullopt;
    throw makeAnswerError(kCannotUpload, answer, m_uri);
}

void BucketUpload::verifyNothingIsThere() {
    if (findObject())
        throwObjectExists(m_uri);
}

bool BucketUpload::isExpectedObject(HTTPAnswer const& answer) const {
    return answer.header("content-length") == std::to_string(m_upload.lengthBytes) &&
           answer.header("etag") == makeExpectedTag();
}

/// The tag that servers give to what was uploaded so; not all do, and not for all kinds of storage.
std::string BucketUpload::makeExpectedTag() const {
    if (m_uploadID.empty())
        return "\"" + toHex(m_parts.front().md5) + "\"";
    std::string digests;
    for (Part const& part : m_parts)
        digests += part.md5;
    return "\"" + toHex(md5(digests)) + "-" + std::to_string(m_parts.size()) + "\"";
}

void BucketUpload::verifyResult() {
    HTTPAnswer const answer = askForObject();
    // Who may write and not read cannot look.
    if (answer.status == kForbidden)
        return;
    if (!isSuccess(answer.status))
        throw makeAnswerError(kCannotUpload, answer, m_uri);
    if (answer.header("content-length") != std::to_string(m_upload.lengthBytes))
        throw makeServerError(kCannotUpload, "The server has another length than was sent.", m_uri);
}

void BucketUpload::giveUp() noexcept {
    m_isCancelled = false;
    try {
        m_server.send(makeRequest("DELETE"), m_uri);
    } catch (std::exception const&) {
        // The error that led here says more. What stays is told in the class's comment.
        return;
    }
}

} // namespace kelm::s3

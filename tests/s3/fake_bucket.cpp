#include "tests/s3/fake_bucket.h"

#include <algorithm>

#include "integrations/s3/digests.h"
#include "integrations/s3/escaped_text.h"
#include "integrations/s3/xml_text.h"

namespace s3_test {

namespace {

using Query = std::map<std::string, std::string>;

constexpr char kBucketPath[] = "/disks/";
constexpr char kDate[] = "Mon, 05 Jan 2026 10:00:00 GMT";

Query parseQuery(std::string const& text) {
    Query query;
    for (std::size_t i = 0; i < text.size();) {
        std::size_t const end = std::min(text.find('&', i), text.size());
        std::string const pair = text.substr(i, end - i);
        std::size_t const equals = std::min(pair.find('='), pair.size());
        query[kelm::s3::unescape(pair.substr(0, equals)).value_or("")] =
            equals < pair.size() ? kelm::s3::unescape(pair.substr(equals + 1)).value_or("") : "";
        i = end + 1;
    }
    return query;
}

/// Whether the body is what the headers promise.
bool keepsPromises(Request const& request) {
    std::string const md5 = request.header("content-md5");
    std::string const sha256 = request.header("x-amz-content-sha256");
    return (md5.empty() || md5 == kelm::s3::toBase64(kelm::s3::md5(request.body))) &&
           (sha256.empty() || sha256 == kelm::s3::toHex(kelm::s3::sha256(request.body)));
}

} // namespace

Reply refuse(int status, std::string const& code) {
    Reply reply;
    reply.status = status;
    reply.body =
        "<?xml version=\"1.0\"?><Error><Code>" + code + "</Code><Message>no</Message></Error>";
    return reply;
}

FakeBucket::FakeBucket(TestServer::Protocol protocol)
    : m_server(
          [this](Request const& request) {
              std::optional<Reply> reply = intervene ? intervene(request) : std::nullopt;
              return reply ? *reply : answer(request);
          },
          protocol) {
    settings.endpointScheme = protocol == TestServer::Protocol::Plain ? "http" : "https";
    settings.endpointHost = m_server.getAddress();
    if (protocol == TestServer::Protocol::Encrypted)
        settings.certificatesFile = m_server.getCertificateFile();
    policy.now = [this] { return m_time.load(); };
    policy.wait = [this](std::chrono::milliseconds duration) {
        m_time = m_time.load() + duration;
        std::lock_guard const guard(m_mutex);
        waits.push_back(duration);
    };
}

yx::P<kelm::s3::CBucketStore> FakeBucket::makeStore() {
    return yx::makeObject<kelm::s3::CBucketStore>([this] { return settings; }, policy);
}

void FakeBucket::passTime() {
    m_time = m_time.load() + kelm::s3::RecentVersions::kLifetime + std::chrono::milliseconds(1);
}

yx::CURI FakeBucket::uri(std::string const& key) {
    return yx::CURI(yx::String::fromUTF8("s3://disks/" + key));
}

void FakeBucket::put(std::string const& key, std::string const& content) {
    std::lock_guard const guard(m_mutex);
    m_objects[key] = content;
    m_tags[key] = makeTag(content);
}

void FakeBucket::remove(std::string const& key) {
    std::lock_guard const guard(m_mutex);
    m_objects.erase(key);
}

std::optional<std::string> FakeBucket::get(std::string const& key) {
    std::lock_guard const guard(m_mutex);
    auto const found = m_objects.find(key);
    return found == m_objects.end() ? std::nullopt : std::optional(found->second);
}

std::size_t FakeBucket::countUploads() {
    std::lock_guard const guard(m_mutex);
    return m_uploads.size();
}

std::string FakeBucket::makeTag(std::string const& content) {
    return "\"" + kelm::s3::toHex(kelm::s3::md5(content)) + "\"";
}

Reply FakeBucket::answer(Request const& request) {
    std::lock_guard const guard(m_mutex);
    if (!request.path.starts_with(kBucketPath))
        return refuse(404, "NoSuchBucket");
    if (!keepsPromises(request))
        return refuse(400, "BadDigest");
    std::string const key =
        kelm::s3::unescape(request.path.substr(sizeof kBucketPath - 1)).value_or("");
    return key.empty() ? giveList(parseQuery(request.query)) : answerObject(request, key);
}

Reply FakeBucket::answerObject(Request const& request, std::string const& key) {
    Query const query = parseQuery(request.query);
    if (request.method == "POST" && query.contains("uploads")) {
        std::string const id = "upload+" + std::to_string(++m_lastUpload);
        m_uploads[id];
        Reply reply;
        reply.body = "<InitiateMultipartUploadResult><UploadId>" + id +
                     "</UploadId></InitiateMultipartUploadResult>";
        return reply;
    }
    if (query.contains("uploadId")) {
        std::string const& id = query.at("uploadId");
        if (!m_uploads.contains(id))
            return refuse(404, "NoSuchUpload");
        if (request.method == "PUT")
            return takePart(request, key, query);
        if (request.method == "POST")
            return endUpload(request, key, id);
        m_uploads.erase(id);
        return {.status = 204};
    }
    bool const isThere = m_objects.contains(key);
    if (request.method == "PUT") {
        bool const hasCondition = request.header("if-none-match") == "*";
        if (hasCondition && !knowsConditions)
            return refuse(501, "NotImplemented");
        if (hasCondition && isThere)
            return refuse(412, "PreconditionFailed");
        m_objects[key] = request.body;
        m_tags[key] = makeTag(request.body);
        return {.headers = {{"ETag", m_tags[key]}}};
    }
    return isThere ? giveObject(request, key) : refuse(404, "NoSuchKey");
}

Reply FakeBucket::giveObject(Request const& request, std::string const& key) {
    std::string const& content = m_objects.at(key);
    std::string const tag = m_tags.at(key);
    std::string const wanted = request.header("if-match");
    if (!wanted.empty() && wanted != tag)
        return refuse(412, "PreconditionFailed");
    Reply reply;
    reply.headers = {{"ETag", tag}, {"Last-Modified", kDate}, {"Accept-Ranges", "bytes"}};
    std::string const range = request.header("range");
    if (request.method == "HEAD") {
        reply.claimedLength = static_cast<long long>(content.size());
    } else if (range.empty()) {
        reply.body = content;
    } else {
        std::size_t const dash = range.find('-');
        std::size_t const begin = std::stoul(range.substr(6, dash - 6));
        std::size_t const last = std::min(std::stoul(range.substr(dash + 1)), content.size() - 1);
        if (begin >= content.size())
            return refuse(416, "InvalidRange");
        reply.status = 206;
        reply.body = content.substr(begin, last - begin + 1);
        reply.headers["Content-Range"] = "bytes " + std::to_string(begin) + "-" +
                                         std::to_string(last) + "/" +
                                         std::to_string(content.size());
    }
    return reply;
}

/// Two names a page, so that small tests have several pages.
Reply FakeBucket::giveList(Query const& query) {
    constexpr std::size_t kNamesOfPage = 2;
    auto const valueOf = [&query](char const* name) {
        auto const found = query.find(name);
        return found == query.end() ? std::string() : found->second;
    };
    std::string const prefix = valueOf("prefix");
    std::map<std::string, bool> names;
    for (auto const& [key, content] : m_objects) {
        if (!key.starts_with(prefix))
            continue;
        std::size_t const slash = key.find('/', prefix.size());
        names[slash == std::string::npos ? key : key.substr(0, slash + 1)] =
            slash == std::string::npos;
    }
    Reply reply;
    reply.body = "<?xml version=\"1.0\"?><ListBucketResult xmlns=\"x\">";
    std::size_t count = 0;
    bool isTruncated = false;
    for (auto const& [name, isObject] : names) {
        if (name <= valueOf("continuation-token"))
            continue;
        if (count == kNamesOfPage) {
            isTruncated = true;
            break;
        }
        ++count;
        std::string const escaped = kelm::s3::escape(name, true);
        reply.body += isObject
                          ? "<Contents><Key>" + escaped + "</Key></Contents>"
                          : "<CommonPrefixes><Prefix>" + escaped + "</Prefix></CommonPrefixes>";
        reply.headers["X-Last"] = escaped;
    }
    reply.body +=
        isTruncated
            ? "<IsTruncated>true</IsTruncated><NextContinuationToken>" +
                  kelm::s3::toXMLText(kelm::s3::unescape(reply.headers["X-Last"]).value_or("")) +
                  "</NextContinuationToken>"
            : "<IsTruncated>false</IsTruncated>";
    reply.body += "</ListBucketResult>";
    return reply;
}

Reply FakeBucket::takePart(Request const& request, std::string const&, Query const& query) {
    m_uploads[query.at("uploadId")].parts[std::stoi(query.at("partNumber"))] = request.body;
    return {.headers = {{"ETag", makeTag(request.body)}}};
}

Reply FakeBucket::endUpload(Request const& request, std::string const& key, std::string const& id) {
    bool const hasCondition = request.header("if-none-match") == "*";
    if (hasCondition && !knowsConditions)
        return refuse(501, "NotImplemented");
    if (hasCondition && m_objects.contains(key))
        return refuse(412, "PreconditionFailed");
    std::string content;
    std::string digests;
    int number = 0;
    for (std::string_view const part : kelm::s3::findElements(request.body, "Part")) {
        ++number;
        std::string const& data = m_uploads[id].parts[number];
        if (kelm::s3::findText(part, "PartNumber") != std::to_string(number) ||
            kelm::s3::findText(part, "ETag") != makeTag(data))
            return refuse(400, "InvalidPart");
        content += data;
        digests += kelm::s3::md5(data);
    }
    m_objects[key] = content;
    m_tags[key] =
        "\"" + kelm::s3::toHex(kelm::s3::md5(digests)) + "-" + std::to_string(number) + "\"";
    m_uploads.erase(id);
    return {.body = "<CompleteMultipartUploadResult></CompleteMultipartUploadResult>"};
}

} // namespace s3_test

#include "integrations/s3/request_signature.h"

#include <algorithm>
#include <array>
#include <ctime>

#include "integrations/s3/digests.h"
#include "integrations/s3/escaped_text.h"

namespace kelm::s3 {

namespace {

constexpr char kAlgorithm[] = "AWS4-HMAC-SHA256";
constexpr char kService[] = "s3";
constexpr char kEndOfScope[] = "aws4_request";
constexpr std::size_t kDateLength = 8;

std::string joinHeaderNames(std::map<std::string, std::string> const& headers) {
    std::string names;
    for (auto const& [name, value] : headers)
        names += (names.empty() ? "" : ";") + name;
    return names;
}

std::string makeCanonicalRequest(SignedParts const& request) {
    std::string text =
        request.method + "\n" + request.escapedPath + "\n" + toQueryText(request.query) + "\n";
    for (auto const& [name, value] : request.headers)
        text += name + ":" + trim(value) + "\n";
    return text + "\n" + joinHeaderNames(request.headers) + "\n" + request.payloadDigest;
}

} // namespace

std::string toQueryText(QueryParameters query) {
    for (auto& [name, value] : query) {
        name = escape(name, false);
        value = escape(value, false);
    }
    std::ranges::sort(query);
    std::string text;
    for (auto const& [name, value] : query) {
        text += text.empty() ? "" : "&";
        text.append(name).append("=").append(value);
    }
    return text;
}

std::string makeAuthorization(SignedParts const& request, AccessKeys const& keys,
                              std::string const& region) {
    std::string const& time = request.headers.at("x-amz-date");
    std::string const date = time.substr(0, kDateLength);
    std::string const scope = date + "/" + region + "/" + kService + "/" + kEndOfScope;
    std::string const signedText = std::string(kAlgorithm) + "\n" + time + "\n" + scope + "\n" +
                                   toHex(sha256(makeCanonicalRequest(request)));
    std::string key = hmacSHA256("AWS4" + keys.secret, date);
    for (std::string const& part : {region, std::string(kService), std::string(kEndOfScope)})
        key = hmacSHA256(key, part);
    return std::string(kAlgorithm) + " Credential=" + keys.id + "/" + scope +
           ",SignedHeaders=" + joinHeaderNames(request.headers) +
           ",Signature=" + toHex(hmacSHA256(key, signedText));
}

std::string formatSigningTime(long long seconds) {
    std::time_t const time = static_cast<std::time_t>(seconds);
    std::tm parts{};
    ::gmtime_r(&time, &parts);
    std::array<char, 32> text{};
    return {text.data(), std::strftime(text.data(), text.size(), "%Y%m%dT%H%M%SZ", &parts)};
}

} // namespace kelm::s3

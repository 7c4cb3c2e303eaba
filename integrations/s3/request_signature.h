#pragma once

#include <map>
#include <string>
#include <utility>
#include <vector>

namespace kelm::s3 {

/// What a user of a bucket proves who he is with. Never shown.
struct AccessKeys {
    std::string id;
    std::string secret;
    std::string sessionToken; ///< empty for keys without an end
};

/// Names and values that are not escaped; the value of a name alone is empty.
using QueryParameters = std::vector<std::pair<std::string, std::string>>;

/// "name=value" and so on, escaped and in the order that signatures demand.
std::string toQueryText(QueryParameters query);

/// A request as far as it is signed.
struct SignedParts {
    std::string method;

    /// As it is sent: escaped, beginning with "/".
    std::string escapedPath;
    QueryParameters query;

    /// By names in lower case; "host" and "x-amz-date" must be among them.
    std::map<std::string, std::string> headers;

    /// SHA-256 of the body, in hexadecimal digits.
    std::string payloadDigest;
};

/// The value of the header "Authorization": signature version 4 of a request to the service "s3".
/// Its time is that of the header "x-amz-date", as `formatSigningTime` gives it.
std::string makeAuthorization(SignedParts const& request, AccessKeys const& keys,
                              std::string const& region);

/// Seconds since 1970 as "20130524T000000Z".
std::string formatSigningTime(long long seconds);

} // namespace kelm::s3

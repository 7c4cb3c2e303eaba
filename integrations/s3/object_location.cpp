#include "integrations/s3/object_location.h"

#include <string_view>

#include "integrations/s3/escaped_text.h"
#include "yx/error.h"
#include "yx/internal/stream_error.h"

namespace kelm::s3 {

namespace {

[[noreturn]] void throwNoObject(yx::CURI const& uri) {
    throw yx::CIOError(yx::CIOError::NotSupported, "The URI does not name an object of a server.",
                       yx::detail::makeUriProps(uri), nullptr);
}

bool isHostName(std::string_view name) {
    return !name.empty() && name.find_first_not_of("abcdefghijklmnopqrstuvwxyz0123456789.-_") ==
                                std::string_view::npos;
}

/// Of version 6.
bool isAddress(std::string_view name) {
    return name.size() > 2 && name.front() == '[' && name.back() == ']' &&
           name.substr(1, name.size() - 2).find_first_not_of("0123456789abcdef:.") ==
               std::string_view::npos;
}

std::string unescapePath(yx::CURI const& uri, std::string const& escapedPath) {
    std::string const lower = toLowerCase(escapedPath);
    bool const hasForeignBytes =
        lower.find("%00") != std::string::npos || lower.find("%2f") != std::string::npos;
    std::optional<std::string> path = unescape(escapedPath);
    if (hasForeignBytes || !path || !path->starts_with('/'))
        throwNoObject(uri);
    return *path;
}

} // namespace

ObjectLocation locate(yx::CURI const& uri) {
    yx::CURI const normal = uri.toNormalized();
    std::string const scheme = normal.getScheme().toStdString();
    bool const hasForeignParts = normal.getUserNameOptRef() || normal.getUserAuthInfoOptRef() ||
                                 normal.getEscapedUnicodeQueryOptRef() ||
                                 normal.getFragmentOptRef();
    auto const host = normal.getHostOptRef();
    if ((scheme != "s3" && scheme != "https") || hasForeignParts || !host)
        throwNoObject(uri);
    ObjectLocation location;
    location.isInBucket = scheme == "s3";
    std::string const name = host->toStdString();
    std::string const escapedPath = normal.getPath().toStdString();
    std::string const path = unescapePath(uri, escapedPath);
    location.endsInSeparator = path.ends_with('/');
    bool const isValid = isHostName(name) || (!location.isInBucket && isAddress(name));
    if (!isValid || (location.isInBucket && normal.getPort() != -1))
        throwNoObject(uri);
    if (location.isInBucket) {
        location.bucket = name;
        location.key = path.substr(1);
        return location;
    }
    location.host = name;
    if (normal.getPort() != -1)
        location.host += ":" + std::to_string(normal.getPort());
    location.escapedPath = escapedPath;
    return location;
}

} // namespace kelm::s3

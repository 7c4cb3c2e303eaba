#include "integrations/s3/object_version.h"

#include <charconv>
#include <ctime>

#include <curl/curl.h>

#include "yx/error.h"
#include "yx/internal/stream_error.h"

namespace kelm::s3 {

bool ObjectVersion::differsFrom(HTTPAnswer const& answer) const {
    std::string const& tag = answer.header("etag");
    if (!tag.empty() && !entityTag.empty() && tag != entityTag)
        return true;
    std::string const& date = answer.header("last-modified");
    bool const isTold = hasStrongTag() && !tag.empty();
    return !isTold && !date.empty() && !lastModified.empty() && date != lastModified;
}

__int64 ObjectVersion::getModifiedNanoseconds() const {
    constexpr __int64 kNanosecondsOfSecond = 1000000000;
    std::time_t const seconds = curl_getdate(lastModified.c_str(), nullptr);
    constexpr std::time_t kLatest = 9000000000;
    return seconds > 0 && seconds < kLatest ? seconds * kNanosecondsOfSecond : 0;
}

ObjectVersion readVersion(HTTPAnswer const& answer, char const* beginning, yx::CURI const& uri) {
    ObjectVersion version;
    std::string const& length = answer.header("content-length");
    auto const [end, error] =
        std::from_chars(length.data(), length.data() + length.size(), version.lengthBytes);
    version.entityTag = answer.header("etag");
    version.lastModified = answer.header("last-modified");
    bool const hasLength =
        error == std::errc() && end == length.data() + length.size() && version.lengthBytes >= 0;
    char const* reason = nullptr;
    if (!hasLength)
        reason = "The server does not say how long the object is.";
    else if (version.entityTag.empty() && version.lastModified.empty())
        reason = "The server gives the object neither a tag nor a date, so one that is replaced "
                 "could not be told from it.";
    if (reason) {
        throw yx::CIOError(yx::CIOError::NotSupported, yx::String(beginning) + reason,
                           yx::detail::makeUriProps(uri), nullptr);
    }
    return version;
}

} // namespace kelm::s3

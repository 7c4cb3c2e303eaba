#pragma once

#include <string>

#include "integrations/s3/http_connections.h"
#include "yx/uri.h"

namespace kelm::s3 {

/// What an object was when it was looked at, so that a later one in its place is told from it.
struct ObjectVersion {
    __int64 lengthBytes = 0;

    /// As the server gives it, with its quotes; empty if it gives none.
    std::string entityTag;

    /// The date as the server gives it, or empty.
    std::string lastModified;

    bool operator==(ObjectVersion const&) const = default;

    /// Whether a server can be asked to go on only with what has this tag. A weak one says too
    /// little for that.
    bool hasStrongTag() const { return !entityTag.empty() && !entityTag.starts_with("W/"); }

    /// Whether an answer is about another object than this, as far as it says.
    bool differsFrom(HTTPAnswer const& answer) const;

    /// When it was last changed, in nanoseconds since 1970, 0 if the server does not say.
    __int64 getModifiedNanoseconds() const;
};

/// That of the object which an answer to "HEAD" is about. `beginning` is how errors begin, which
/// are `yx::CIOError` `NotSupported` with "uri": no length, and neither a tag nor a date.
ObjectVersion readVersion(HTTPAnswer const& answer, char const* beginning, yx::CURI const& uri);

} // namespace kelm::s3

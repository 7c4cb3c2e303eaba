#pragma once

#include <string>

#include "yx/uri.h"

namespace kelm::s3 {

/// Where a URI points to: `s3://BUCKET/KEY` or `https://HOST[:PORT]/PATH`.
struct ObjectLocation {
    /// Whether the URI is one of `s3`; what is said of keys then is about the bucket's.
    bool isInBucket = false;

    /// The bucket's name; empty for `https`.
    std::string bucket;

    /// The key, which is not escaped and has no separator at its start; empty for the bucket itself
    /// and for `https`.
    std::string key;

    /// "HOST[:PORT]" of `https`; else empty.
    std::string host;

    /// The escaped path of `https`; else empty.
    std::string escapedPath;

    /// Whether the name can only be that of a folder.
    bool endsInSeparator = false;
};

/// Takes a URI apart, in its normal form: dot segments and repeated separators are gone, and the
/// bucket's name is in lower case. What cannot be an object is `yx::CIOError` `NotSupported` with
/// "uri": another scheme, no host, a host or a bucket with characters that none has, a user name, a
/// query, a fragment, an escaped zero byte or separator, a port with `s3`.
ObjectLocation locate(yx::CURI const& uri);

} // namespace kelm::s3

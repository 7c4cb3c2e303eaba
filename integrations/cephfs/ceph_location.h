#pragma once

#include <string>

#include "yx/uri.h"

namespace kelm::ceph {

/// Where a URI points to: `ceph://[USER@][FILESYSTEM]/PATH`.
struct CephLocation {
    /// Without "client."; empty for the user that the settings name.
    std::string user;

    /// Empty for the file system that the settings name, or else the cluster's default.
    std::string fileSystem;

    /// Absolute, not escaped, never empty. Ends in "/" if the URI does.
    std::string path;

    bool endsInSeparator() const { return path.size() > 1 && path.back() == '/'; }
};

/// Takes a URI apart. What cannot be a file of a cluster is `yx::CIOError` `NotSupported` with
/// "uri": another scheme, a relative path, a password, port, query or fragment, an escaped zero
/// byte or separator, escapes that are no UTF-8.
CephLocation locate(yx::CURI const& uri);

} // namespace kelm::ceph

#include "integrations/cephfs/ceph_location.h"

#include "yx/error.h"

namespace kelm::ceph {

namespace {

[[noreturn]] void throwNoClusterFile(yx::CURI const& uri) {
    throw yx::CIOError(yx::CIOError::NotSupported,
                       "The URI names no file of a cluster (ceph://USER@FILESYSTEM/PATH).",
                       yx::CProps().add("uri", uri.toString(true)), nullptr);
}

/// The path, with what a path cannot hold refused.
std::string unescapePath(yx::CURI const& uri) {
    try {
        return yx::toUnixPath(yx::CURI("file", uri.getPath(), {}, {}, {}, -1, {}, {}))
            .toStdString();
    } catch (yx::CIOError const&) {
        throwNoClusterFile(uri);
    }
}

} // namespace

CephLocation locate(yx::CURI const& uri) {
    bool const hasForeignParts = uri.getUserAuthInfoOptRef() || uri.getPort() != -1 ||
                                 uri.getEscapedUnicodeQueryOptRef() || uri.getFragmentOptRef();
    if (uri.toNormalized().getScheme() != "ceph" || hasForeignParts)
        throwNoClusterFile(uri);
    CephLocation location;
    if (auto const user = uri.getUserNameOptRef())
        location.user = user->toStdString();
    if (auto const host = uri.getHostOptRef())
        location.fileSystem = host->toStdString();
    location.path = unescapePath(uri);
    if (!location.path.starts_with('/'))
        throwNoClusterFile(uri);
    // Whoever copies the name from a keyring says it in full.
    constexpr std::string_view kKindOfUser = "client.";
    if (location.user.starts_with(kKindOfUser))
        location.user.erase(0, kKindOfUser.size());
    return location;
}

} // namespace kelm::ceph

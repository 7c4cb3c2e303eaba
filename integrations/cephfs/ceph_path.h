#pragma once

#include <string>

#include "yx/uri.h"

struct ceph_mount_info;

namespace kelm::ceph {

/// Finds the one name of what a path of the client leads to, as realpath(3) does: absolute, without
/// links, dot segments and a separator at its end. The last name may be missing, but not behind a
/// link or before a separator. 0 or a negative `errno` value: `ENOENT` or `ENOTDIR` for what has no
/// such name, `ELOOP` for links that lead on for ever.
int resolvePath(ceph_mount_info* client, std::string const& path, std::string& resolved);

/// The URI with another path, which is not escaped, in normal form; user and host, which is the name
/// of a file system, stay as they are.
yx::CURI replacePath(yx::CURI const& uri, std::string const& path);

} // namespace kelm::ceph

#pragma once

#include <string>
#include <string_view>

#include "yx/base.h"

namespace yx::detail {

/// The scheme of URIs that name files of the operating system.
inline constexpr char kFileScheme[] = "file";

/// The host that stands for this system, as an empty one does.
inline constexpr char kThisHost[] = "localhost";

/// The port of a URI that has none.
inline constexpr __int64 kNoPort = -1;

/// A native path with "/" for separators as a URI's path: escaped, without repeated separators.
std::string escapeNativePath(std::string_view path);

/// The path with one separator for each run of them.
std::string collapseSeps(std::string_view path);

/// RFC 3986 section 5.2.4, except that ".." leaves the folder before repeated separators, as file
/// systems do. A path without a root keeps the ".." at its start if `isReference`.
std::string removeDotSegments(std::string_view path, bool isReference);

/// Colons in the first segment would make a scheme of it where there is none.
std::string escapeColonsInFirstSegment(std::string_view path);

/// The path without its trailing separators; a root stays.
std::string_view withoutTrailingSeps(std::string_view path);

/// Where the last component starts in a path without trailing separators.
size_t getNameStart(std::string_view path);

/// The path of the containing folder. A dot segment at the end is no name: the parent is then that
/// of the folder that it stands for.
std::string getParentPath(std::string_view path, bool isReference);

} // namespace yx::detail

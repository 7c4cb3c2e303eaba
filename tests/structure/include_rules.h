#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace structure {

/// One `#include "..."` line. Both paths start at the root of the tree, with forward slashes.
struct Include {
    std::string file;   ///< where the line stands
    int line = 0;       ///< its number, from 1
    std::string target; ///< what it includes
};

/// The quoted includes in `text`, which is the content of `file`, in the order of their lines.
std::vector<Include> findIncludes(std::string const& file, std::string_view text);

/// The quoted includes in all headers and sources of the rooms that have a direction. Throws if a
/// room or a file cannot be read.
std::vector<Include> readIncludes(std::filesystem::path const& root);

/// Why the include is forbidden; nothing if it is allowed. Allowed are includes inside a room,
/// those that go down, and the few upward ones in its list.
std::optional<std::string> findFault(Include const& include);

} // namespace structure

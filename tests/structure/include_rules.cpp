#include "tests/structure/include_rules.h"

#include <algorithm>
#include <array>
#include <fstream>
#include <iterator>
#include <regex>
#include <sstream>
#include <stdexcept>

namespace structure {

namespace {

struct Room {
    std::string_view prefix; ///< of the paths of its files
    int height;              ///< a room includes only lower ones
};

/// The first prefix that fits decides. Rooms of one height do not know each other.
constexpr std::array kRooms{
    Room{"examples/", 14},     Room{"integrations/", 14},  Room{"tools/", 14},
    Room{"host/backups/", 13}, Room{"host/transfer/", 12}, Room{"host/check/", 12},
    Room{"host/digest/", 11},  Room{"host/content/", 11},  Room{"host/disk/", 10},
    Room{"host/store/", 9},    Room{"host/system/", 8},    Room{"kelm/disk/", 6},
    Room{"kelm/extent/", 5},   Room{"kelm/graindata/", 4}, Room{"kelm/metadata/", 3},
    Room{"kelm/format/", 2},   Room{"kelm/export.h", 1},   Room{"kelm/", 7}, // the umbrella header
    Room{"krym/", 1},          Room{"compressors/", 1},    Room{"yx/", 0},
};

struct UpwardEdge {
    std::string_view from; ///< prefix of the including file
    std::string_view to;   ///< the included file
};

constexpr std::array kUpwardEdges{
    // Interfaces and records that the lower room only passes on.
    UpwardEdge{"kelm/graindata/", "kelm/extent/data_provider.h"},
    UpwardEdge{"kelm/extent/", "kelm/disk/space_info.h"},
    // The opener of streams, which format needs to follow references to files.
    UpwardEdge{"kelm/format/", "kelm/extent/low_level_file_stream.h"},
    // Forward declarations in the headers, so only the sources may.
    UpwardEdge{"kelm/format/content_id_updater.cpp", "kelm/extent/sparse_extent_file.h"},
    UpwardEdge{"kelm/extent/parent_disk_data_provider.cpp", "kelm/disk/disk.h"},
};

Room const* findRoom(std::string_view path) {
    auto const found = std::find_if(kRooms.begin(), kRooms.end(), [path](Room const& room) {
        return path.starts_with(room.prefix);
    });
    return found == kRooms.end() ? nullptr : &*found;
}

bool isListedUpwardEdge(Include const& include) {
    return std::any_of(kUpwardEdges.begin(), kUpwardEdges.end(), [&](UpwardEdge const& edge) {
        return include.file.starts_with(edge.from) && include.target == edge.to;
    });
}

std::string readFile(std::filesystem::path const& path) {
    std::ifstream stream(path, std::ios::binary);
    if (!stream)
        throw std::runtime_error("cannot read " + path.string());
    return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
}

bool isCode(std::filesystem::path const& path) {
    auto const extension = path.extension();
    return extension == ".h" || extension == ".cpp";
}

} // namespace

std::vector<Include> findIncludes(std::string const& file, std::string_view text) {
    static std::regex const pattern("^\\s*#\\s*include\\s*\"([^\"]*)\"");
    std::vector<Include> includes;
    std::istringstream lines{std::string(text)};
    std::string line;
    for (int number = 1; std::getline(lines, line); ++number) {
        std::smatch match;
        if (std::regex_search(line, match, pattern))
            includes.push_back({file, number, match[1]});
    }
    return includes;
}

std::vector<Include> readIncludes(std::filesystem::path const& root) {
    std::vector<Include> includes;
    for (char const* folder :
         {"yx", "krym", "compressors", "kelm", "host", "tools", "integrations", "examples"}) {
        for (auto const& entry : std::filesystem::recursive_directory_iterator(root / folder)) {
            if (!entry.is_regular_file() || !isCode(entry.path()))
                continue;
            auto const file = entry.path().lexically_relative(root).generic_string();
            auto found = findIncludes(file, readFile(entry.path()));
            includes.insert(includes.end(), found.begin(), found.end());
        }
    }
    return includes;
}

std::optional<std::string> findFault(Include const& include) {
    Room const* const from = findRoom(include.file);
    Room const* const to = findRoom(include.target);
    if (!from)
        return "the including file is in no room";
    if (!to)
        return "the target is in no room that others may include";
    if (from == to || to->height < from->height || isListedUpwardEdge(include))
        return std::nullopt;
    return "the include goes up or sideways";
}

} // namespace structure

#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "bench/report/work_files.h"

namespace bench {

/// Makes an ext4 file system of the files of `content` in the file `path`, cut off where it holds
/// `dataBytes` bytes of data. The whole of it is made in `scratchFolder` first, best in memory. Too
/// little content ends the program with a message.
void makeImage(std::string const& path, std::filesystem::path const& content, long long dataBytes,
               std::filesystem::path const& scratchFolder);

/// The whole grains of an image that hold something, the first `limit` of them.
std::vector<yx::P<Buffer>> readGrains(std::string const& path, std::size_t limit = SIZE_MAX);

} // namespace bench

#pragma once

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

namespace bench {

// Content taken from files of this machine, which compresses as real data do. A failure ends the
// program with a message.

[[noreturn]] inline void failWith(std::string const& message) {
    std::fprintf(stderr, "%s\n", message.c_str());
    std::exit(1);
}

/// A word of a shell's command line.
inline std::string quoted(std::string const& word) {
    return "'" + word + "'";
}

inline void runCommand(std::string const& command) {
    if (std::system(command.c_str()) != 0)
        failWith("failed: " + command);
}

/// Makes an ext4 file system of 4 GiB with the files of `content`, as a sparse file in `folder`,
/// and returns its path.
inline std::string makeFileSystemImage(std::string const& content,
                                       std::filesystem::path const& folder) {
    std::string const image = folder / "image.raw";
    runCommand("PATH=$PATH:/usr/sbin:/sbin mke2fs -q -F -t ext4 -d " + quoted(content) + " " +
               quoted(image) + " 4G >/dev/null");
    return image;
}

/// The first `sizeBytes` bytes of the files below `folder` that `isWanted`, one behind the other in
/// the order of their paths.
inline std::vector<unsigned char> readFiles(
    std::filesystem::path const& folder, std::size_t sizeBytes,
    std::function<bool(std::filesystem::path const&)> const& isWanted) {
    namespace fs = std::filesystem;
    std::vector<fs::path> paths;
    for (auto const& entry :
         fs::recursive_directory_iterator(folder, fs::directory_options::skip_permission_denied)) {
        if (entry.is_regular_file() && !entry.is_symlink())
            paths.push_back(entry.path());
    }
    std::sort(paths.begin(), paths.end());

    std::vector<unsigned char> bytes;
    for (fs::path const& path : paths) {
        if (bytes.size() >= sizeBytes)
            break;
        if (!isWanted(path))
            continue;
        std::ifstream file(path, std::ios::binary);
        bytes.insert(bytes.end(), std::istreambuf_iterator<char>(file), {});
    }
    if (bytes.size() < sizeBytes)
        failWith(folder.string() + " holds too little");
    bytes.resize(sizeBytes);
    return bytes;
}

/// Whether a file is a program or a library.
inline bool isElf(std::filesystem::path const& path) {
    char magic[4] = {};
    std::ifstream(path, std::ios::binary).read(magic, sizeof(magic));
    return std::string(magic, sizeof(magic)) == "\177ELF";
}

/// So many pieces of a file that are not all zeros, from all over it.
inline std::vector<unsigned char> readPiecesWithData(std::string const& path,
                                                     std::size_t pieceSizeBytes,
                                                     std::size_t count) {
    constexpr std::size_t kStride = 16;
    std::ifstream file(path, std::ios::binary);
    std::vector<unsigned char> bytes;
    std::vector<unsigned char> piece(pieceSizeBytes);
    for (std::size_t index = 0; bytes.size() < count * pieceSizeBytes; index += kStride) {
        file.seekg(static_cast<std::streamoff>(index * pieceSizeBytes));
        if (!file.read(reinterpret_cast<char*>(piece.data()),
                       static_cast<std::streamsize>(pieceSizeBytes)))
            failWith(path + " holds too little");
        if (std::any_of(piece.begin(), piece.end(), [](unsigned char byte) { return byte != 0; }))
            bytes.insert(bytes.end(), piece.begin(), piece.end());
    }
    return bytes;
}

} // namespace bench

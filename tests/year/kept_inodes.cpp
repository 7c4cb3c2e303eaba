#include "tests/year/kept_inodes.h"

#include <fstream>
#include <vector>

namespace year_test {

namespace {

namespace fs = std::filesystem;

using test_support::Bytes;

/// Changes the file only if it has other content.
void putContent(fs::path const& file, Bytes const& content) {
    if (fs::exists(file) && test_support::readFileContent(file) == content)
        return;
    std::ofstream(file, std::ios::binary)
        .write(reinterpret_cast<char const*>(content.data()),
               static_cast<std::streamsize>(content.size()));
}

std::vector<fs::path> listBelow(fs::path const& folder) {
    std::vector<fs::path> paths;
    for (fs::directory_entry const& entry : fs::recursive_directory_iterator(folder))
        paths.push_back(entry.path());
    return paths;
}

} // namespace

KeptInodes::KeptInodes(fs::path folder, fs::path aside)
    : m_folder(std::move(folder)), m_aside(std::move(aside)) {
    fs::remove_all(m_aside);
    for (fs::path const& path : listBelow(m_folder)) {
        if (!fs::is_regular_file(path))
            continue;
        fs::path const second = m_aside / path.lexically_relative(m_folder);
        fs::create_directories(second.parent_path());
        fs::create_hard_link(path, second);
    }
}

void KeptInodes::bringBack(test_support::FolderCut::State const& state) const {
    for (fs::path const& path : listBelow(m_folder)) {
        if (fs::is_regular_file(path))
            fs::remove(path);
    }
    for (auto const& [path, content] : state.files) {
        fs::create_directories((m_folder / path).parent_path());
        auto const former = state.formerPaths.find(path);
        if (former != state.formerPaths.end())
            fs::create_hard_link(m_aside / former->second, m_folder / path);
        putContent(m_folder / path, content);
    }
}

} // namespace year_test

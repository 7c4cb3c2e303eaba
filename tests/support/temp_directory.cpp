#include "tests/support/temp_directory.h"

#include <cstdio>
#include <system_error>

#include <stdlib.h>

#include "yx/path_impl.h"

namespace test_support {

namespace fs = std::filesystem;

yx::CURI toURI(fs::path const& path) {
    yx::TPathImpl<yx::CUnixPathTraits> const unixPath(yx::String::fromUTF8(path.string()), true,
                                                      false);
    return {unixPath, false};
}

TempDirectory::TempDirectory() {
    std::string name = (fs::canonical(fs::temp_directory_path()) / "kelm-test-XXXXXX").string();
    if (!::mkdtemp(name.data()))
        throw std::system_error(errno, std::generic_category(), name);
    m_path = name;
}

TempDirectory::~TempDirectory() {
    std::error_code error;
    for (auto entry = fs::recursive_directory_iterator(
             m_path, fs::directory_options::skip_permission_denied, error);
         !error && entry != fs::recursive_directory_iterator(); entry.increment(error)) {
        std::error_code ignored;
        if (entry->is_directory(ignored) && !entry->is_symlink(ignored))
            fs::permissions(entry->path(), fs::perms::owner_all, fs::perm_options::add, ignored);
    }
    fs::permissions(m_path, fs::perms::owner_all, fs::perm_options::add, error);
    fs::remove_all(m_path, error);
    if (error)
        std::fprintf(stderr, "cannot remove %s: %s\n", m_path.c_str(), error.message().c_str());
}

} // namespace test_support

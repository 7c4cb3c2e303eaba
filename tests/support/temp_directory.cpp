#include "tests/support/temp_directory.h"

#include <cstdio>
#include <stdexcept>
#include <system_error>

#include <fcntl.h>
#include <stdlib.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "yx/path_impl.h"

namespace test_support {

namespace fs = std::filesystem;

yx::CURI toURI(fs::path const& path) {
    yx::TPathImpl<yx::CUnixPathTraits> const unixPath(yx::String::fromUTF8(path.string()), true,
                                                      false);
    return {unixPath, false};
}

namespace {

constexpr char kNamePrefix[] = "kelm-tests-";
constexpr char kName[] = "d";

constexpr fs::perms kPassable = fs::perms::group_exec | fs::perms::others_exec;

/// Opens a directory and locks it, so that nobody takes it for one that was left behind; -1 if
/// somebody else holds it, or it is not there.
int lockDirectory(fs::path const& path) {
    int const descriptor = ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NOFOLLOW);
    struct stat opened = {};
    struct stat named = {};
    if (descriptor >= 0 && ::flock(descriptor, LOCK_EX | LOCK_NB) == 0 &&
        ::fstat(descriptor, &opened) == 0 && ::lstat(path.c_str(), &named) == 0 &&
        opened.st_ino == named.st_ino)
        return descriptor;
    if (descriptor >= 0)
        ::close(descriptor);
    return -1;
}

void removeDirectory(fs::path const& path) {
    std::error_code error;
    for (auto entry = fs::recursive_directory_iterator(
             path, fs::directory_options::skip_permission_denied, error);
         !error && entry != fs::recursive_directory_iterator(); entry.increment(error)) {
        std::error_code ignored;
        if (entry->is_directory(ignored) && !entry->is_symlink(ignored))
            fs::permissions(entry->path(), fs::perms::owner_all, fs::perm_options::add, ignored);
    }
    fs::permissions(path, fs::perms::owner_all, fs::perm_options::add, error);
    fs::remove_all(path, error);
    if (error)
        std::fprintf(stderr, "cannot remove %s: %s\n", path.c_str(), error.message().c_str());
}

/// Makes a directory and locks it. One that was taken for a left one before it was locked is made
/// again.
fs::path makeDirectory(fs::path const& base, int& lock) {
    constexpr int kMaxTries = 10;
    for (int tries = 0; tries < kMaxTries; ++tries) {
        std::string name = (base / (std::string(kNamePrefix) + "XXXXXX")).string();
        if (!::mkdtemp(name.data()))
            throw std::system_error(errno, std::generic_category(), name);
        lock = lockDirectory(name);
        if (lock >= 0)
            return name;
    }
    throw std::runtime_error("cannot lock a directory in " + base.string());
}

} // namespace

TempDirectory::TempDirectory() {
    [[maybe_unused]] static bool const areLeftOnesGone = (removeLeft(), true);
    m_around = makeDirectory(fs::canonical(fs::temp_directory_path()), m_lock);
    // Whom a test lets into its directory must be able to come there.
    fs::permissions(m_around, kPassable, fs::perm_options::add);
    m_path = m_around / kName;
    fs::create_directory(m_path);
    fs::permissions(m_path, fs::perms::owner_all);
}

TempDirectory::~TempDirectory() {
    removeDirectory(m_around);
    ::close(m_lock);
}

void TempDirectory::removeLeft() {
    fs::path const base = fs::canonical(fs::temp_directory_path());
    std::error_code error;
    for (auto entry = fs::directory_iterator(base, error);
         !error && entry != fs::directory_iterator(); entry.increment(error)) {
        struct stat status = {};
        bool const isOurs = entry->path().filename().string().rfind(kNamePrefix, 0) == 0 &&
                            ::lstat(entry->path().c_str(), &status) == 0 &&
                            status.st_uid == ::geteuid();
        int const lock = isOurs ? lockDirectory(entry->path()) : -1;
        if (lock < 0)
            continue;
        removeDirectory(entry->path());
        ::close(lock);
    }
}

} // namespace test_support

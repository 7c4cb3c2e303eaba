#pragma once

#include <filesystem>
#include <string>

#include "yx/uri.h"

namespace test_support {

/// The `file:` URI of an absolute path.
yx::CURI toURI(std::filesystem::path const& path);

/// A new, empty directory of the operating system, removed with all that is in it at the end, also
/// where a test took permissions away. It stands alone in another new directory, which goes with
/// it: what a test puts beside it, under its path and a suffix, is not in the test's way and yet
/// not left behind. What a test that was killed has left goes when the next process makes its first
/// directory: each is locked for as long as its process lives.
class TempDirectory {
public:
    TempDirectory();
    TempDirectory(TempDirectory const&) = delete;
    TempDirectory& operator=(TempDirectory const&) = delete;
    ~TempDirectory();

    /// Removes what tests of this user that were killed have left in the folder for temporary
    /// files.
    static void removeLeft();

    /// Absolute, without links in it.
    std::filesystem::path const& path() const { return m_path; }

    /// Of the directory itself, or of a file in it.
    yx::CURI uri() const { return toURI(m_path); }
    yx::CURI uri(std::string const& name) const { return toURI(m_path / name); }

private:
    /// The directory around it, and its lock.
    std::filesystem::path m_around;
    int m_lock = -1;
    std::filesystem::path m_path;
};

} // namespace test_support

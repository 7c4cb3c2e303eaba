#pragma once

#include <filesystem>

#include "tests/support/folder_cut.h"

namespace year_test {

/// Keeps every file of a folder under a second name elsewhere, so that one that a program deletes
/// can come back as the same file, which is what a power cut does.
class KeptInodes {
public:
    /// `aside` is on the file system of the folder, and is emptied.
    KeptInodes(std::filesystem::path folder, std::filesystem::path aside);

    /// Makes the folder what the power cut left.
    void bringBack(test_support::FolderCut::State const& state) const;

private:
    std::filesystem::path m_folder;
    std::filesystem::path m_aside;
};

} // namespace year_test

#pragma once

#include <cstdlib>
#include <filesystem>
#include <string>

namespace test_support {

/// Lets programs that are started while it lives find the store `test:` of a folder
/// (`FolderStore`).
class TestStoreScope {
public:
    /// `modules` is the folder with the store's library, `folder` a real path.
    TestStoreScope(std::string const& modules, std::filesystem::path const& folder) {
        std::filesystem::create_directory(folder);
        ::setenv("KELM_STORES", modules.c_str(), 1);
        ::setenv("KELM_TEST_STORE", folder.c_str(), 1);
    }
    TestStoreScope(TestStoreScope const&) = delete;
    TestStoreScope& operator=(TestStoreScope const&) = delete;
    ~TestStoreScope() {
        ::unsetenv("KELM_STORES");
        ::unsetenv("KELM_TEST_STORE");
    }
};

} // namespace test_support

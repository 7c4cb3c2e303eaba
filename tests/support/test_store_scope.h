#pragma once

#include <cstdlib>
#include <filesystem>
#include <string>

#include <dlfcn.h>

#include "yx/native_file_system.h"

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

/// Hides the stores that are built or installed beside the libraries from programs that are started
/// while it lives: they load the library `yx`, beside which stores are looked for, from a folder of
/// its own.
class HiddenStores {
public:
    /// Makes `folder`.
    explicit HiddenStores(std::filesystem::path const& folder) {
        std::filesystem::create_directory(folder);
        Dl_info info = {};
        ::dladdr(reinterpret_cast<void const*>(&yx::toNativePath), &info);
        std::filesystem::path const library = std::filesystem::canonical(info.dli_fname);
        std::filesystem::create_symlink(library,
                                        folder / std::filesystem::path(info.dli_fname).filename());
        ::setenv("LD_LIBRARY_PATH", folder.c_str(), 1);
    }
    HiddenStores(HiddenStores const&) = delete;
    HiddenStores& operator=(HiddenStores const&) = delete;
    ~HiddenStores() { ::unsetenv("LD_LIBRARY_PATH"); }
};

} // namespace test_support

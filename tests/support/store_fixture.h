#pragma once

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include <gtest/gtest.h>

#include "host/store/file_systems.h"
#include "host/store/stores.h"
#include "tests/support/folder_store.h"
#include "tests/support/temp_directory.h"
#include "yx/native_file_system.h"

namespace test_support {

/// A store of the scheme `test`, the folder that it shows, and the file system of all stores.
class StoreTest : public ::testing::Test {
protected:
    StoreTest()
        : store(yx::makeObject<FolderStore>(folder.path().string())),
          added("test", store),
          files(yx::makeObject<kelm::host::FileSystems>(yx::makeObject<yx::CNativeFileSystem>())) {}

    /// Writes a file of the folder.
    void put(std::string const& name, std::string const& content) const {
        std::ofstream(folder.path() / name) << content;
    }

    std::string contentOf(std::string const& name) const {
        std::ifstream stream(folder.path() / name);
        return {std::istreambuf_iterator<char>(stream), {}};
    }

    bool isThere(std::string const& name) const {
        return std::filesystem::exists(folder.path() / name);
    }

    /// Of a file of the store, by its escaped name.
    static yx::CURI uri(std::string const& name) {
        return yx::CURI(yx::String::fromUTF8("test:/" + name)).toNormalized();
    }

    yx::P<yx::IIOStream> open(std::string const& name,
                              yx::IIOStream::Access access = yx::IIOStream::ReadWrite) const {
        unsigned int options = 0;
        return files->openFile(uri(name), access, &options);
    }

    TempDirectory folder;
    yx::P<FolderStore> store;
    kelm::host::AddedStore added;
    yx::P<kelm::host::FileSystems> files;
};

} // namespace test_support

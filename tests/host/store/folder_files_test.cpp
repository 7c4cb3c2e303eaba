#include "host/store/folder_files.h"

#include <fstream>

#include <gmock/gmock.h>

#include "host/store/file_names.h"
#include "tests/support/temp_directory.h"

namespace {

using kelm::host::listFilesBelow;
using testing::ElementsAre;

class FolderFiles : public ::testing::Test {
protected:
    void put(std::string const& name) const { std::ofstream(folder.path() / name) << name; }

    std::vector<std::string> names() const {
        std::vector<std::string> texts;
        std::string const prefix = folder.uri("").toString(true).toStdString();
        for (yx::CURI const& file : listFilesBelow(folder.uri("")))
            texts.push_back(file.toString(true).toStdString().substr(prefix.size()));
        return texts;
    }

    test_support::TempDirectory folder;
};

TEST_F(FolderFiles, AreThoseOfAllFoldersBelowInOrder) {
    std::filesystem::create_directories(folder.path() / "b/c");
    for (char const* const name : {"z", "b/c/x", "b/y", "a"})
        put(name);
    EXPECT_THAT(names(), ElementsAre("a", "b/c/x", "b/y", "z"));
}

TEST_F(FolderFiles, OfSeveralNamesComeOnceAndLinksToFoldersAreNotFollowed) {
    std::filesystem::create_directory(folder.path() / "b");
    put("b/x");
    std::filesystem::create_symlink("b", folder.path() / "link");
    std::filesystem::create_symlink("b/x", folder.path() / "also");
    std::filesystem::create_symlink("nothing", folder.path() / "dangling");
    EXPECT_THAT(names(), ElementsAre("b/x"));
}

TEST_F(FolderFiles, WhoseNamesAreNoUTF8ArePassedOver) {
    put("a");
    put("b\xff");
    EXPECT_THAT(names(), ElementsAre("a"));
}

} // namespace

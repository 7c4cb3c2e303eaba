#include "host/store/kept_files.h"

#include <fstream>
#include <memory>

#include <gmock/gmock.h>

#include "tests/host/host_fixture.h"
#include "tests/support/log_capture.h"

using kelm::host::KeptFiles;
using testing::ElementsAre;
using testing::IsEmpty;

namespace test_support {
namespace {

class KeptFilesTest : public HostTest {
protected:
    void put(std::string const& name, std::string const& content) {
        std::filesystem::remove(pathOf(name));
        std::ofstream(pathOf(name)) << content;
    }

    std::string contentOf(std::string const& name) {
        std::ifstream stream(pathOf(name));
        return {std::istreambuf_iterator<char>(stream), {}};
    }

    /// Every file below the folder, by its path, in order.
    std::vector<std::string> names() const {
        std::vector<std::string> all;
        for (auto const& entry : std::filesystem::recursive_directory_iterator(folder.path())) {
            if (entry.is_regular_file())
                all.push_back(std::filesystem::relative(entry.path(), folder.path()).string());
        }
        std::sort(all.begin(), all.end());
        return all;
    }

    std::unique_ptr<KeptFiles> keepBoth() {
        put("disk", "main");
        put("disk-s1", "extent");
        return std::make_unique<KeptFiles>(std::vector{folder.uri("disk"), folder.uri("disk-s1")});
    }
};

TEST_F(KeptFilesTest, AreThereUnderBothNames) {
    std::unique_ptr<KeptFiles> const kept = keepBoth();
    EXPECT_THAT(names(), ElementsAre("disk", "disk-s1", "disk.former/disk", "disk.former/disk-s1"));
    EXPECT_EQ(contentOf("disk.former/disk"), "main");
    EXPECT_EQ(contentOf("disk.former/disk-s1"), "extent");
}

TEST_F(KeptFilesTest, ArePutBackUnlessTheyAreDropped) {
    std::unique_ptr<KeptFiles> kept = keepBoth();
    std::filesystem::remove(pathOf("disk"));
    kept.reset();
    EXPECT_THAT(names(), ElementsAre("disk", "disk-s1"));
    EXPECT_EQ(contentOf("disk"), "main");
    EXPECT_EQ(contentOf("disk-s1"), "extent");
    EXPECT_FALSE(std::filesystem::exists(pathOf("disk.former")));
}

TEST_F(KeptFilesTest, GoOnceTheyAreReplaced) {
    std::unique_ptr<KeptFiles> kept = keepBoth();
    put("disk", "new");
    kept->drop();
    kept.reset();
    EXPECT_THAT(names(), ElementsAre("disk", "disk-s1"));
    EXPECT_EQ(contentOf("disk"), "new");
    EXPECT_FALSE(std::filesystem::exists(pathOf("disk.former")));
}

TEST_F(KeptFilesTest, StayWhereAnotherFileHasTheirName) {
    std::unique_ptr<KeptFiles> kept = keepBoth();
    put("disk", "another");
    LogCapture const log;
    kept.reset();
    EXPECT_EQ(contentOf("disk"), "another");
    EXPECT_EQ(contentOf("disk.former/disk"), "main");
    EXPECT_EQ(contentOf("disk.former/disk-s1"), "extent");
    ASSERT_EQ(log.entries().size(), 1U);
    EXPECT_EQ(log.entries()[0].message, "The former disk could not be put back, and is kept in '" +
                                            pathOf("disk.former") + "'.");
}

TEST_F(KeptFilesTest, NeverShareAFolderWithEarlierOnes) {
    std::filesystem::create_directory(pathOf("disk.former"));
    put("disk.former/disk", "earlier");
    EXPECT_THAT(KeptFiles::findFoldersOf(folder.uri("disk")),
                ElementsAre(folder.uri("disk.former")));
    std::unique_ptr<KeptFiles> kept = keepBoth();
    EXPECT_THAT(KeptFiles::findFoldersOf(folder.uri("disk")),
                ElementsAre(folder.uri("disk.former"), folder.uri("disk.former.2")));
    EXPECT_EQ(contentOf("disk.former.2/disk"), "main");
    kept.reset();
    EXPECT_EQ(contentOf("disk.former/disk"), "earlier");
    EXPECT_THAT(KeptFiles::findFoldersOf(folder.uri("other")), IsEmpty());
    EXPECT_THAT(KeptFiles::findFoldersOf(uriOf("disk")), IsEmpty());
}

TEST_F(KeptFilesTest, AreFoundBesideNamesThatAreEscaped) {
    std::string const name = "50% of \u00fc: #1?";
    std::filesystem::create_directory(pathOf(name + ".former"));
    std::filesystem::create_directory(pathOf(name + ".former.16"));
    std::filesystem::create_directory(pathOf(name + ".former.17"));
    put(name + ".former.2", "a file");
    EXPECT_THAT(KeptFiles::findFoldersOf(folder.uri("sub/../" + name)),
                ElementsAre(folder.uri(name + ".former"), folder.uri(name + ".former.16")));
}

TEST_F(KeptFilesTest, StayUnderTheirNamesIfOneCannotBeKept) {
    put("disk", "main");
    EXPECT_TRUE(throwsIOError(yx::CIOError::NotFound,
                              "Cannot keep the file of the former disk: No such file or directory",
                              {{"path", pathOf("disk-s1")}}, [&] {
                                  KeptFiles({folder.uri("disk"), folder.uri("disk-s1")});
                              }));
    EXPECT_THAT(names(), ElementsAre("disk"));
}

} // namespace
} // namespace test_support

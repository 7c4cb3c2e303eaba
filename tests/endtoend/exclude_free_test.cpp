// Imports that leave out what a file system says is free.

#include <algorithm>
#include <cstdlib>

#include <nlohmann/json.hpp>

#include "host/content/free_space.h"
#include "tests/endtoend/tool_fixture.h"

namespace endtoend {

namespace {

class ExcludeFree : public ToolTest {
protected:
    void SetUp() override {
        if (!kelm::host::canFindFreeSpace())
            GTEST_SKIP() << "This build has no libext2fs.";
        if (!runShell("command -v mke2fs && command -v debugfs && command -v e2fsck"))
            GTEST_SKIP() << "mke2fs, debugfs or e2fsck is missing.";
        std::filesystem::create_directory(path("files"));
        writeFile("files/stays", m_kept);
        writeFile("files/goes", std::string(std::size_t{6} << 20, 'g'));
        writeFile("image", std::string(std::size_t{16} << 20, 'x'));
        ASSERT_TRUE(runShell("mke2fs -q -F -t ext4 -b 1024 -E nodiscard -d files image && "
                             "debugfs -w -R 'rm goes' image"))
            << readFile("words");
    }

    bool runShell(std::string const& line) const {
        std::string const command = "cd '" + folder().string() +
                                    "' && PATH=\"$PATH:/usr/sbin:/sbin\" && { " + line +
                                    "; } > words 2>&1";
        return std::system(command.c_str()) == 0;
    }

    nlohmann::json import(Arguments const& options) const {
        return nlohmann::json::parse(
            runWell(joined({{"import", "image", "disk.vmdk", "--force", "--json"}, options})));
    }

    /// The file system is sound in the image that comes out, and has its file.
    void expectSoundImage() const {
        runWell({"export", "disk.vmdk", "out", "--force"});
        EXPECT_TRUE(runShell("e2fsck -fn out")) << readFile("words");
        EXPECT_TRUE(runShell("debugfs -R 'dump stays dumped' out")) << readFile("words");
        EXPECT_TRUE(readFile("dumped") == m_kept);
        std::string const out = readFile("out");
        EXPECT_EQ(std::search(out.begin(), out.end(), m_lost.begin(), m_lost.end()), out.end());
    }

    std::string const m_kept = makeImage(std::size_t{2} << 20, 77);

    /// Only what is free has that.
    std::string const m_lost = std::string(1024, 'g');
};

TEST_F(ExcludeFree, IsOffByDefault) {
    nlohmann::json const told = import({});
    EXPECT_EQ(told.count("freeBytes"), 0U);
    EXPECT_EQ(runWell({"compare", "image", "disk.vmdk"}), "equal\n");
}

TEST_F(ExcludeFree, LeavesASoundFileSystemWithEqualFiles) {
    for (Arguments const& kind :
         {Arguments{}, {"--compressed"}, {"--no-digests"}, {"--image-digest", "--compressed"}}) {
        SCOPED_TRACE(testing::PrintToString(kind));
        nlohmann::json const told = import(joined({{"--exclude-free"}, kind}));
        EXPECT_GT(told["freeBytes"], 10 << 20);
        EXPECT_LT(told["freeBytes"], 14 << 20);
        EXPECT_LT(told["storedBytes"], 6 << 20);
        expectSoundImage();
        EXPECT_EQ(runWell({"check", "disk.vmdk"}), "");
    }
}

TEST_F(ExcludeFree, HidesWhatTheParentHas) {
    runWell({"import", "image", "parent.vmdk"});
    import({"--exclude-free", "--parent", "parent.vmdk"});
    expectSoundImage();
}

TEST_F(ExcludeFree, IsRefusedWhereTheFileSystemNeedsRecovery) {
    ASSERT_TRUE(runShell("debugfs -w -R 'feature needs_recovery' image")) << readFile("words");
    Outcome const outcome = run({"import", "image", "disk.vmdk", "--exclude-free"});
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.err, "kelm: warning: The free blocks of the file system on the image are not "
                           "left out: its journal needs recovery: it is mounted, or was not "
                           "cleanly unmounted.\n");
    EXPECT_EQ(runWell({"compare", "image", "disk.vmdk"}), "equal\n");
}

TEST_F(ExcludeFree, NeedsAnImageThatCanBeReadAtAnyPlace) {
    runBadly(2, {"import", "-", "disk.vmdk", "--size", "16M", "--exclude-free"});
    EXPECT_FALSE(std::filesystem::exists(path("disk.vmdk")));
}

} // namespace

} // namespace endtoend

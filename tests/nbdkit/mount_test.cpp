#include "tests/nbdkit/mounting.h"
#include "tests/nbdkit/plugin_fixture.h"

namespace nbdkit {

namespace {

class Mount : public PluginTest, public ::testing::WithParamInterface<DiskKind> {};

INSTANTIATE_TEST_SUITE_P(Kinds, Mount, ::testing::Values(allKinds().front(), allKinds().back()),
                         [](auto const& instance) { return instance.param.name; });

TEST_P(Mount, FileSystemOnADiskTakesAndKeepsFiles) {
    std::string const obstacle = findMountObstacle(path("tried"));
    if (!obstacle.empty())
        GTEST_SKIP() << obstacle;
    runClient({"mke2fs", "-q", "-F", "-t", "ext4", "-d", std::string(KELM_SOURCE_DIR) + "/host",
               "files.img", "16M"});
    makeDisk(GetParam(), GetParam().isChild ? readFile("files.img") : "");
    std::unique_ptr<Server> server = serve();
    if (!GetParam().isChild)
        runClient({"nbdcopy", "files.img", server->uri()});
    std::string const content = makeImage(std::size_t{1} << 20, 15);
    {
        DiskAsFile disk(folder(), {server->uri()});
        ASSERT_TRUE(disk.isThere()) << disk.explain();
        {
            MountedFiles const files(folder());
            ASSERT_TRUE(files.isThere()) << files.explain();
            EXPECT_GT(readFile("files/disk/safe_disk.h").size(), 1000u);
            writeFile("files/new", content);
            std::filesystem::remove(path("files/disk/safe_disk.cpp"));
        }
        disk.finish();
    }
    stopWell(*server);

    server = serve({"-r"});
    runClient({"nbdcopy", server->uri(), "copy.img"});
    stopWell(*server);
    runClient({"e2fsck", "-fn", "copy.img"});
    expectContent(readFile("copy.img"));
    runClient({"debugfs", "-R", "dump /new new", "copy.img"});
    EXPECT_TRUE(readFile("new") == content);
    EXPECT_EQ(runClient({"debugfs", "-R", "stat /safe_disk.cpp", "copy.img"}), "");
}

} // namespace

} // namespace nbdkit

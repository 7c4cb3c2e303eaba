// The commands 'mount' and 'umount' with the programs themselves.

#include <cstdlib>

#include "tests/endtoend/tool_fixture.h"
#include "tests/nbdkit/mounting.h"

namespace nbdkit {

namespace {

using endtoend::Arguments;
using endtoend::Outcome;

class KelmMount : public endtoend::ToolTest {
protected:
    void SetUp() override {
        char const* const searched = std::getenv("PATH");
        m_path = searched != nullptr ? searched : "";
        // An installed plugin is found by its name.
        std::filesystem::create_directory(path("bin"));
        writeFile("bin/nbdkit", "#!/bin/bash\nwords=(\"$@\")\nfor i in \"${!words[@]}\"; do\n"
                                "[[ ${words[i]} != kelm ]] || words[i]='" KELM_NBDKIT_PLUGIN "'\n"
                                "done\nexport PATH=${PATH#*:}\nexec nbdkit \"${words[@]}\"\n");
        std::filesystem::permissions(path("bin/nbdkit"), std::filesystem::perms::owner_all);
        ::setenv("PATH", (path("bin") + ":" + m_path).c_str(), 1);
        ::setenv("XDG_RUNTIME_DIR", path("run").c_str(), 1);
        for (char const* const name : {"run", "mnt", "content"})
            std::filesystem::create_directory(path(name));
        writeFile("content/photo", m_photo);
    }

    void TearDown() override {
        ::setenv("PATH", m_path.c_str(), 1);
        ::unsetenv("XDG_RUNTIME_DIR");
    }

    /// An encrypted disk with an ext4 from 1 MiB on, in the first of two partitions.
    void makeDisk() const {
        std::string image(std::size_t{16} << 20, '\0');
        image.replace(446, 32,
                      std::string("\0\0\0\0\x83\0\0\0\0\x08\0\0\0\x40\0\0"
                                  "\0\0\0\0\x82\0\0\0\0\x48\0\0\0\x10\0\0",
                                  32));
        image.replace(510, 2, "\x55\xAA");
        writeFile("image", image);
        std::string const line = "cd '" + folder().string() +
                                 "' && mke2fs -q -t ext4 -d content -E offset=1048576 image 8M";
        ASSERT_EQ(std::system(line.c_str()), 0);
        writeFile("password", "correct horse\n");
        runWell({"import", "image", "disk.vmdk", "--compressed", "--encrypt", "--rounds", "1000",
                 "--password-file", "password"});
    }

    Outcome mount(std::string const& partition) const {
        return run(
            {"mount", "disk.vmdk", "mnt", "--partition", partition, "--password-file", "password"});
    }

    bool isNothingLeft() const {
        return std::filesystem::is_empty(path("run")) && std::filesystem::is_empty(path("mnt"));
    }

    std::string const m_photo = makeImage(std::size_t{1} << 20, 97);

private:
    std::string m_path;
};

TEST_F(KelmMount, ShowsTheFilesOfAPartitionAndFreesTheDisk) {
    std::string const obstacle = findMountObstacle(path("tried"));
    if (!obstacle.empty())
        GTEST_SKIP() << obstacle;
    ASSERT_NO_FATAL_FAILURE(makeDisk());
    Outcome const mounted = mount("1");
    ASSERT_EQ(mounted.status, 0) << mounted.err;
    EXPECT_TRUE(readFile("mnt/photo") == m_photo);
    Arguments const writing{"compact", "disk.vmdk", "--password-file", "password"};
    EXPECT_EQ(run(writing).status, 6);
    runWell({"umount", "mnt"});
    EXPECT_TRUE(isNothingLeft());
    EXPECT_EQ(run(writing).status, 0);
    // What is no file system is not mounted, and nothing stays of the attempt.
    EXPECT_EQ(mount("2").status, 3);
    EXPECT_TRUE(isNothingLeft());
    EXPECT_EQ(run(writing).status, 0);
}

} // namespace

} // namespace nbdkit

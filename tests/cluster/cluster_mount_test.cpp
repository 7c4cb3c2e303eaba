// Disks in a folder of the cluster's file system that is mounted twice, as on two machines: what the
// program does with a network mount.

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <string>

#include <fcntl.h>
#include <unistd.h>

#include "tests/cluster/cluster_backends.h"
#include "tests/cluster/cluster_shell.h"
#include "tests/endtoend/tool_fixture.h"
#include "tests/support/bytes.h"
#include "yx/native_file_system.h"

namespace cluster_mount_test {

namespace {

using cluster_shell::runInShell;
using endtoend::RunningTool;
using endtoend::ToolOutcome;
using test_support::Arguments;

constexpr std::size_t kImageBytes = std::size_t{20} << 20;

/// Whether a file system can be mounted by FUSE here.
bool canMount() {
    int const device = ::open("/dev/fuse", O_RDWR | O_CLOEXEC);
    if (device < 0)
        return false;
    ::close(device);
    return runInShell("command -v ceph-fuse || true") != "";
}

/// The cluster's file system in a folder of this machine, through a client of its own.
class Mount {
public:
    explicit Mount(std::string folder) : m_folder(std::move(folder)) {
        std::filesystem::create_directory(m_folder);
        runInShell("ceph-fuse --id writer '" + m_folder + "' >/dev/null 2>&1");
    }
    Mount(Mount const&) = delete;
    Mount& operator=(Mount const&) = delete;
    ~Mount() { runInShell("umount '" + m_folder + "'"); }

private:
    std::string m_folder;
};

class ClusterMount : public endtoend::ToolTest {
protected:
    void SetUp() override {
        if (!canMount())
            GTEST_SKIP() << "There is no ceph-fuse or no /dev/fuse here.";
        m_first = std::make_unique<Mount>(path("first"));
        m_second = std::make_unique<Mount>(path("second"));
        writeFile("image", makeImage(kImageBytes, 81));
        std::string later = readFile("image");
        later.replace(kImageBytes / 2, 17, "changed on friday");
        writeFile("later", later);
    }

    /// A file as it is called on one of the mounts.
    std::string on(char const* mount, std::string const& name) const {
        return path(mount) + m_cluster.uri(name).getPath().toStdString();
    }

    /// The same file through the library's own client.
    std::string inStore(std::string const& name) const {
        return m_cluster.uri(name).toString(true).toStdString();
    }

    void expectInUse(std::string const& disk) const {
        for (Arguments const& command :
             {Arguments{"check", disk}, Arguments{"export", disk, "out", "--force"},
              Arguments{"import", "image", disk, "--force"}}) {
            ToolOutcome const outcome = run(command);
            EXPECT_EQ(outcome.status, 6) << outcome.err;
            EXPECT_NE(outcome.err.find("The disk is in use"), std::string::npos) << outcome.err;
        }
    }

    file_system_backends::Cluster m_cluster;
    std::unique_ptr<Mount> m_first;
    std::unique_ptr<Mount> m_second;
};

TEST_F(ClusterMount, DisksAndTheirChildrenAreTheSameOnBothMounts) {
    runWell({"import", "image", on("first", "full.vmdk"), "--compressed"});
    runWell({"import", "later", on("second", "child.vmdk"), "--parent", on("second", "full.vmdk"),
             "--compressed"});
    EXPECT_EQ(runWell({"check", on("second", "full.vmdk")}), "");
    EXPECT_EQ(runWell({"check", on("first", "child.vmdk")}), "");
    EXPECT_EQ(runWell({"compare", "later", inStore("child.vmdk")}), "equal\n");
    runWell({"export", on("first", "child.vmdk"), "out"});
    EXPECT_EQ(readFile("out"), readFile("later"));
    runWell({"flatten", on("second", "child.vmdk")});
    EXPECT_EQ(runWell({"compare", "later", on("first", "child.vmdk")}), "equal\n");
    runWell({"rename", on("first", "child.vmdk"), on("first", "renamed.vmdk")});
    EXPECT_EQ(runWell({"compare", "later", on("second", "renamed.vmdk")}), "equal\n");
}

TEST_F(ClusterMount, AWriterKeepsTheOtherMountOutUntilItIsKilled) {
    std::string const disk = on("first", "disk.vmdk");
    {
        RunningTool writer(folder(), {"import", "-", disk, "--size", "20M", "--no-digests"});
        writer.feed(readFile("image").substr(0, kImageBytes / 2));
        ASSERT_TRUE(cluster_shell::comesTrue(
            [&] { return std::filesystem::exists(on("second", "disk.vmdk")); }));
        expectInUse(disk);
        expectInUse(on("second", "disk.vmdk"));
        expectInUse(inStore("disk.vmdk"));
        writer.signal(SIGKILL);
        writer.finish();
    }
    EXPECT_NE(run({"check", on("second", "disk.vmdk")}).out.find("the disk is unfinished"),
              std::string::npos);
    runWell({"import", "image", on("second", "disk.vmdk"), "--force"});
    EXPECT_EQ(runWell({"compare", "image", disk}), "equal\n");
    EXPECT_FALSE(std::filesystem::exists(disk + ".lock"));
}

TEST_F(ClusterMount, AFileThatTheOtherMountReplacesIsReadToItsEndOrStale) {
    test_support::Bytes const old = test_support::pattern(kImageBytes, 82);
    test_support::Bytes const replacing = test_support::pattern(kImageBytes, 83);
    auto const files = yx::makeObject<yx::CNativeFileSystem>();
    auto const uriOn = [this](char const* mount, std::string const& name) {
        return yx::CURI(yx::String::fromUTF8("file://" + on(mount, name)));
    };
    auto const make = [&](std::string const& name, test_support::Bytes const& content) {
        auto const stream =
            files->openFile(uriOn("first", name), yx::IIOStream::ReadWrite, nullptr);
        test_support::writeAt(*stream, 0, content);
        stream->flush();
    };
    make("a", old);
    auto const reader = files->openFile(uriOn("second", "a"), yx::IIOStream::ReadOnly, nullptr);
    std::size_t const half = kImageBytes / 2;
    EXPECT_TRUE(test_support::sameBytes(test_support::slice(old, 0, half),
                                        test_support::readAt(*reader, 0, half)));
    make("b", replacing);
    std::filesystem::rename(on("first", "b"), on("first", "a"));
    try {
        EXPECT_TRUE(
            test_support::sameBytes(test_support::slice(old, half, half),
                                    test_support::readAt(*reader, static_cast<int>(half), half)));
    } catch (yx::CIOError const& error) {
        EXPECT_NE(error.getMessage().toStdString().find("Stale file handle"), std::string::npos)
            << error.what();
    }
    auto const anew = files->openFile(uriOn("second", "a"), yx::IIOStream::ReadOnly, nullptr);
    EXPECT_TRUE(test_support::sameBytes(replacing, test_support::readAt(*anew, 0, kImageBytes)));
}

} // namespace

} // namespace cluster_mount_test

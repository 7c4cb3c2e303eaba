#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tests/nbdkit/plugin_fixture.h"

namespace nbdkit {

namespace {

/// Takes away what is mounted on a folder.
Outcome unmount(std::filesystem::path const& mountPoint) {
    return test_support::RunningProgram(mountPoint.parent_path(), {"umount", mountPoint.string()})
        .finish();
}

/// nbdfuse, which shows a server's disk as the file "nbd" in a folder.
class DiskAsFile {
public:
    DiskAsFile(std::filesystem::path const& folder, std::string const& uri)
        : m_folder(folder), m_program(start(folder, uri)), m_isThere(waitUntilThere()) {}
    DiskAsFile(DiskAsFile const&) = delete;
    DiskAsFile& operator=(DiskAsFile const&) = delete;
    ~DiskAsFile() {
        if (m_isThere)
            unmount(m_folder / "disk");
    }

    bool isThere() const { return m_isThere; }

    /// Takes the file away. All that was written to it has then been sent to the server.
    void finish() {
        m_isThere = false;
        EXPECT_EQ(unmount(m_folder / "disk").err, "");
        EXPECT_EQ(m_program.finish().err, "");
    }

    /// Why the file is not there.
    std::string explain() { return m_program.finish().err; }

private:
    static test_support::RunningProgram start(std::filesystem::path const& folder,
                                              std::string const& uri) {
        std::filesystem::create_directory(folder / "disk");
        ::mkfifo((folder / "ready").c_str(), 0600);
        return {folder, {"nbdfuse", "-P", "ready", "disk", uri}};
    }

    /// nbdfuse writes its process number once the file is there.
    bool waitUntilThere() const {
        int const ready = ::open((m_folder / "ready").c_str(), O_RDONLY | O_NONBLOCK);
        int const process = test_support::openProcess(m_program.id());
        pollfd events[] = {{ready, POLLIN, 0}, {process, POLLIN, 0}};
        ::poll(events, 2, -1);
        ::close(ready);
        ::close(process);
        return (events[0].revents & POLLIN) != 0;
    }

    std::filesystem::path m_folder;
    test_support::RunningProgram m_program;
    bool m_isThere;
};

/// The file system on the disk, mounted on the folder "files".
class Files {
public:
    explicit Files(std::filesystem::path const& folder)
        : m_mountPoint(folder / "files"), m_mounted(mount(folder)) {}
    Files(Files const&) = delete;
    Files& operator=(Files const&) = delete;
    ~Files() {
        if (isThere())
            unmount(m_mountPoint);
    }

    bool isThere() const { return m_mounted.status == 0; }

    /// Why it is not there.
    std::string const& explain() const { return m_mounted.err; }

private:
    static Outcome mount(std::filesystem::path const& folder) {
        std::filesystem::create_directory(folder / "files");
        return test_support::RunningProgram(folder, {"mount", "-o", "loop", "disk/nbd", "files"})
            .finish();
    }

    std::filesystem::path m_mountPoint;
    Outcome m_mounted;
};

class Mount : public PluginTest, public ::testing::WithParamInterface<DiskKind> {};

INSTANTIATE_TEST_SUITE_P(Kinds, Mount, ::testing::Values(allKinds().front(), allKinds().back()),
                         [](auto const& instance) { return instance.param.name; });

TEST_P(Mount, FileSystemOnADiskTakesAndKeepsFiles) {
    if (::access("/dev/fuse", R_OK | W_OK) != 0)
        GTEST_SKIP() << "/dev/fuse is not usable here, so nbdfuse cannot show a disk as a file.";
    runClient({"mke2fs", "-q", "-F", "-t", "ext4", "-d", std::string(KELM_SOURCE_DIR) + "/host",
               "files.img", "16M"});
    makeDisk(GetParam(), GetParam().isChild ? readFile("files.img") : "");
    std::unique_ptr<Server> server = serve();
    if (!GetParam().isChild)
        runClient({"nbdcopy", "files.img", server->uri()});
    std::string const content = makeImage(std::size_t{1} << 20, 15);
    {
        DiskAsFile disk(folder(), server->uri());
        if (!disk.isThere())
            GTEST_SKIP() << "nbdfuse cannot mount here: " << disk.explain();
        {
            Files const files(folder());
            if (!files.isThere())
                GTEST_SKIP() << "A file cannot be mounted here: " << files.explain();
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

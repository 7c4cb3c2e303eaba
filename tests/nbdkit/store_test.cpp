// The plugin with disks of a store, whose client does not outlive a fork.

#include <csignal>

#include <poll.h>
#include <unistd.h>

#include "tests/nbdkit/plugin_fixture.h"
#include "tests/support/test_store_scope.h"

namespace nbdkit {

namespace store_test {

namespace {

/// "store" in the folder is the store `test:`.
class StorePlugin : public PluginTest {
protected:
    StorePlugin() : m_image(makeImage(kDiskBytes, 61)), m_store(KELM_TEST_STORES, path("store")) {
        writeFile("image", m_image);
    }

    /// Starts a server that must refuse to serve, and returns its words.
    std::string refusalOf(Arguments const& arguments) const {
        Outcome const outcome =
            Server(folder(), joined({{KELM_NBDKIT_PLUGIN}, arguments})).waitForEnd();
        EXPECT_EQ(outcome.status, 1);
        return outcome.err;
    }

    /// Serves, expects the image, and writes into it.
    void expectServedForWriting(Arguments const& parameters) {
        Server server(folder(), joined({{KELM_NBDKIT_PLUGIN}, parameters}));
        {
            Client const client(server.socketPath());
            EXPECT_TRUE(client.read(0, kDiskBytes) == m_image);
            EXPECT_EQ(client.write(1234567, "written"), 0);
            m_image.replace(1234567, 7, "written");
        }
        stopWell(server);
        writeFile("image", m_image);
    }

    std::string m_image;

private:
    test_support::TestStoreScope m_store;
};

TEST_F(StorePlugin, ServesDisksOfItForWriting) {
    for (DiskKind const& kind : allKinds()) {
        if (kind.isChild)
            continue;
        SCOPED_TRACE(kind.name);
        Arguments const encrypt =
            kind.isEncrypted ? Arguments{"--encrypt", "--rounds", "1000"} : Arguments{};
        runWell(joined(
            {{"import", "image", "test:/disk.vmdk", "--force", "--password-file", "password"},
             encrypt,
             kind.options}));
        expectServedForWriting({"test:/disk.vmdk", "password=+password"});
        EXPECT_EQ(runWell({"compare", "test:/disk.vmdk", "image", "--password-file", "password"}),
                  "equal\n");
    }
}

TEST_F(StorePlugin, ServesDisksOfItForReading) {
    runWell({"import", "image", "test:/a b.vmdk", "--compressed"});
    Server server(folder(), {"-r", KELM_NBDKIT_PLUGIN, "file=test:/a%20b.vmdk"});
    {
        Client const one(server.socketPath());
        Client const other(server.socketPath());
        EXPECT_TRUE(one.read(0, kDiskBytes) == m_image);
        EXPECT_TRUE(other.read(kGrainBytes, kDiskBytes / 2) ==
                    m_image.substr(kGrainBytes, kDiskBytes / 2));
        EXPECT_EQ(run({"compact", "test:/a b.vmdk"}).status, 6);
        EXPECT_EQ(runWell({"check", "test:/a b.vmdk"}), "");
    }
    stopWell(server);
}

TEST_F(StorePlugin, ServesChildrenAcrossStores) {
    runWell({"import", "image", "test:/full.vmdk"});
    runWell({"child", "test:/full.vmdk", "here.vmdk"});
    expectServedForWriting({"here.vmdk"});
    EXPECT_EQ(runWell({"compare", "here.vmdk", "image"}), "equal\n");
    runWell({"import", "image", "full.vmdk"});
    runWell({"child", "full.vmdk", "test:/there.vmdk"});
    expectServedForWriting({"test:/there.vmdk"});
    EXPECT_EQ(runWell({"compare", "test:/there.vmdk", "image"}), "equal\n");
}

TEST_F(StorePlugin, UsesItOnlyBehindTheFork) {
    runWell({"import", "image", "test:/full.vmdk"});
    runWell({"child", "test:/full.vmdk", "here.vmdk"});
    for (std::string const disk : {"test:/full.vmdk", "here.vmdk"}) {
        SCOPED_TRACE(disk);
        std::string const socketPath = path("sock");
        Outcome const started =
            test_support::RunningProgram(
                folder(), {"nbdkit", "-U", socketPath, "-P", path("pid"), KELM_NBDKIT_PLUGIN, disk})
                .finish();
        ASSERT_EQ(started.status, 0) << started.err;
        EXPECT_TRUE(Client(socketPath).read(0, kDiskBytes) == m_image);
        int const id = std::stoi(readFile("pid"));
        int const process = test_support::openProcess(id);
        ASSERT_GE(process, 0);
        EXPECT_EQ(run({"compact", disk}).status, 6);
        ASSERT_EQ(::kill(id, SIGTERM), 0);
        pollfd ended{process, POLLIN, 0};
        ::poll(&ended, 1, -1);
        ::close(process);
        std::filesystem::remove(socketPath);
        std::filesystem::remove(path("pid"));
    }
}

TEST_F(StorePlugin, RefusesToStartWithWords) {
    test_support::HiddenStores const hidden(path("libraries"));
    for (char const* const option : {"-f", "-r"}) {
        EXPECT_EQ(refusalOf({option, "test:/missing.vmdk"}),
                  "nbdkit: error: The disk does not exist. (uri: test:/missing.vmdk)\n");
        EXPECT_EQ(refusalOf({option, "test:/nowhere/missing.vmdk"}),
                  "nbdkit: error: No such file or directory (uri: test:/nowhere/missing.vmdk)\n");
        EXPECT_EQ(refusalOf({option, "ceph:/disk.vmdk"}),
                  "nbdkit: error: There is no store for 'ceph:' here. (uri: ceph:/disk.vmdk)\n");
    }
    runWell({"import", "image", "test:/disk.vmdk"});
    test_support::RunningProgram writer(
        folder(), {KELM_TOOL, "import", "-", "test:/disk.vmdk", "--force", "--size", "8M"});
    writer.feed(std::string(std::size_t{1} << 20, 'x'));
    for (char const* const option : {"-f", "-r"}) {
        EXPECT_EQ(refusalOf({option, "test:/disk.vmdk"}),
                  "nbdkit: error: The disk is in use: its lock file is held by another program or "
                  "another open disk. (uri: test:/disk.vmdk.lock)\n");
    }
    writer.signal(SIGINT);
    writer.finish();
}

TEST_F(StorePlugin, ReachesIntoItOnlyWhereThatIsAllowed) {
    std::filesystem::create_directory(path("store/parts"));
    runWell({"import", "image", "disk.vmdk", "--split", "4M", "--no-digests"});
    std::string text = readFile("disk.vmdk");
    std::string const folderOfParts = "test:/parts/";
    for (std::size_t at = 0; (at = text.find("\"disk-s", at)) != std::string::npos; ++at)
        text.insert(at + 1, folderOfParts);
    // The software that wrote these lines knows of no checksum.
    std::size_t const checksum = text.find("ddb.kelm.checksum");
    text.erase(checksum, text.find('\n', checksum) + 1 - checksum);
    writeFile("disk.vmdk", text);
    for (std::string const& name : listFiles()) {
        if (name.starts_with("disk-s"))
            std::filesystem::rename(path(name), path("store/parts/" + name));
    }
    EXPECT_EQ(refusalOf({"disk.vmdk"}),
              "nbdkit: error: The disk names a file outside of its folder. If you trust the disk, "
              "allow that file's folder (--allow-path, allow-path=). (uri: "
              "test:/parts/disk-s00000.vmdk, folder: " +
                  path("") + ")\n");
    expectServedForWriting({"disk.vmdk", "allow-path=test:/parts/../parts"});
    EXPECT_EQ(runWell({"compare", "disk.vmdk", "image", "--allow-path", "test:/parts"}), "equal\n");
}

} // namespace

} // namespace store_test

} // namespace nbdkit

// What 'mount' and 'umount' start, in which order, and what they take down whatever fails. With
// stand-ins for the programs; the page of backups is run with the real ones.

#include <array>
#include <csignal>
#include <cstdlib>

#include <nlohmann/json.hpp>

#include "tests/endtoend/mount_stand_ins.h"
#include "tests/endtoend/tool_fixture.h"

namespace endtoend {

namespace {

class MountCommand : public ToolTest {
protected:
    void SetUp() override {
        writeFile("image", makeImage(std::size_t{8} << 20, 91));
        runWell({"import", "image", "disk.vmdk"});
        std::filesystem::create_directory(path("mnt"));
        m_standIns.takeCalls();
    }

    /// What the start of the servers looks like.
    static std::string serverCalls(std::string const& more = "") {
        std::string const kelm = "nbdkit -s -r kelm file=@/disk.vmdk" + more;
        return "nbdfuse -r -P @/record/ready @/record/image --command " + kelm + "\n" + kelm + "\n";
    }

    static std::string mountCall(std::string const& options = "") {
        return "mount -o ro,loop" + options + " @/record/image/nbd @/mnt\n";
    }

    /// The program has taken all down again.
    void expectNothingLeft() const {
        EXPECT_TRUE(m_standIns.isClean());
        EXPECT_TRUE(std::filesystem::is_empty(path("mnt")));
        EXPECT_FALSE(std::filesystem::exists(path("mnt.bare")));
    }

    /// Sectors with entries: type, first sector, sectors.
    void importPartitions(std::vector<std::array<unsigned, 3>> const& entries) const {
        std::string image(std::size_t{8} << 20, '\0');
        std::size_t at = 446;
        for (auto const& [type, first, sectors] : entries) {
            image[at + 4] = static_cast<char>(type);
            for (std::size_t i = 0; i < 4; ++i) {
                image[at + 8 + i] = static_cast<char>(first >> (8 * i));
                image[at + 12 + i] = static_cast<char>(sectors >> (8 * i));
            }
            at += 16;
        }
        // The table ends so, and an extended partition that is empty.
        for (std::size_t const sector : {0, 2000}) {
            image[sector * 512 + 510] = 0x55;
            image[sector * 512 + 511] = static_cast<char>(0xAA);
        }
        writeFile("image", image);
        runWell({"import", "image", "disk.vmdk", "--force"});
    }

    MountStandIns m_standIns{folder()};
    std::string const m_rounds = " max-rounds=10000000";
};

TEST_F(MountCommand, StartsAndEndsAllInOrder) {
    EXPECT_EQ(runWell({"mount", "disk.vmdk", "mnt"}), "");
    EXPECT_EQ(m_standIns.takeCalls(), serverCalls(m_rounds) + mountCall());
    EXPECT_EQ(readFile("mnt/file"), "file\n");
    EXPECT_FALSE(m_standIns.isClean());
    EXPECT_EQ(runWell({"umount", "mnt"}), "");
    EXPECT_EQ(m_standIns.takeCalls(), "umount @/mnt\numount @/record/image\n");
    expectNothingLeft();
}

TEST_F(MountCommand, LetsTheServerWaitToo) {
    runWell({"mount", "disk.vmdk", "mnt", "--wait", "500"});
    EXPECT_EQ(m_standIns.takeCalls(), serverCalls(m_rounds + " wait=500") + mountCall());
    runWell({"umount", "mnt"});
    m_standIns.takeCalls();
    runWell({"mount", "disk.vmdk", "mnt", "--wait", "0"});
    EXPECT_EQ(m_standIns.takeCalls(), serverCalls(m_rounds) + mountCall());
    runWell({"umount", "mnt"});
}

TEST_F(MountCommand, TellsProgramsWhatItDid) {
    auto told = nlohmann::json::parse(runWell({"mount", "disk.vmdk", "mnt", "--json"}));
    EXPECT_EQ(told["file"], path("disk.vmdk"));
    EXPECT_EQ(told["folder"], path("mnt"));
    EXPECT_EQ(told.count("partition"), 0U);
    told = nlohmann::json::parse(runWell({"umount", "mnt", "--json"}));
    EXPECT_EQ(told["file"], path("disk.vmdk"));
    EXPECT_EQ(told["folder"], path("mnt"));
}

TEST_F(MountCommand, HandsPasswordsOnUnseen) {
    writeFile("parent", "of the parent\n");
    writeFile("own", "its own\n");
    runWell({"import", "image", "parent.vmdk", "--encrypt", "--rounds", "1000", "--password-file",
             "parent"});
    runWell({"import", "image", "disk.vmdk", "--force", "--parent", "parent.vmdk", "--rounds",
             "1000", "--password-file", "own", "--parent-password-file", "parent"});
    runWell({"mount", "disk.vmdk", "mnt", "--password-file", "own", "--parent-password-file",
             "parent", "--max-rounds", "2000", "--allow-oversize", "--unfinished", "--allow-path",
             "mnt"});
    EXPECT_EQ(m_standIns.takeCalls(),
              serverCalls(" password=-60 parent-password=-61 max-rounds=2000 allow-path=@/mnt "
                          "allow-oversize=yes unfinished=yes") +
                  "password is its own\nparent-password is of the parent\n" + mountCall());
    runWell({"umount", "mnt"});
    runBadly(4, {"mount", "disk.vmdk", "mnt", "--password-file", "parent"});
    expectNothingLeft();
}

TEST_F(MountCommand, MountsThePartitionThatIsChosen) {
    importPartitions({{0x83, 64, 1000}, {0x05, 2000, 4000}, {0x82, 8000, 8000}});
    runWell({"mount", "disk.vmdk", "mnt", "--partition", "3", "-o", "noload,uid=7"});
    EXPECT_EQ(m_standIns.takeCalls(),
              serverCalls(m_rounds) + mountCall(",offset=4096000,sizelimit=4096000,noload,uid=7"));
    runWell({"umount", "mnt"});
    m_standIns.takeCalls();
    EXPECT_NE(runBadly(2, {"mount", "disk.vmdk", "mnt"}).find("choose one with --partition: 1, 3."),
              std::string::npos);
    EXPECT_NE(runBadly(2, {"mount", "disk.vmdk", "mnt", "--partition", "2"})
                  .find("no partition 2 that could be mounted, only: 1, 3."),
              std::string::npos);
    EXPECT_EQ(m_standIns.takeCalls(), "");
    expectNothingLeft();
    importPartitions({{0x83, 64, 1000}});
    runWell({"mount", "disk.vmdk", "mnt"});
    EXPECT_EQ(m_standIns.takeCalls(),
              serverCalls(m_rounds) + mountCall(",offset=32768,sizelimit=512000"));
    runWell({"umount", "mnt"});
}

TEST_F(MountCommand, RefusesWhatMakesNoSense) {
    for (char const* const options : {"rw", "ro,rw", "loop", "offset=5", "ro,sizelimit=1", "bind"})
        runBadly(2, {"mount", "disk.vmdk", "mnt", "-o", options});
    runBadly(2, {"mount", "disk.vmdk", "mnt", "--partition", "1"});
    runBadly(2, {"mount", "disk.vmdk", "mnt", "--partition", "0"});
    runBadly(8, {"mount", "missing.vmdk", "mnt"});
    runBadly(8, {"mount", "disk.vmdk", "missing"});
    EXPECT_EQ(
        runBadly(8, {"umount", "mnt"}).find("kelm: No disk is mounted on the folder by kelm."), 0U);
    EXPECT_EQ(m_standIns.takeCalls(), "");
    expectNothingLeft();
    runWell({"mount", "disk.vmdk", "mnt", "-o", "ro"});
    EXPECT_EQ(runBadly(3, {"mount", "disk.vmdk", "mnt"}).find("kelm: A disk is mounted on the "),
              0U);
    runWell({"umount", "mnt"});
}

TEST_F(MountCommand, SaysWhichProgramsAreMissing) {
    m_standIns.remove("nbdkit");
    m_standIns.remove("nbdfuse");
    // What the machine has is not to be found.
    ::setenv("PATH", path("stand-ins").c_str(), 1);
    EXPECT_EQ(runBadly(3, {"mount", "disk.vmdk", "mnt"}),
              "kelm: Mounting needs programs that are not installed: nbdkit (package nbdkit), "
              "nbdfuse (package libnbd-bin).\n");
    expectNothingLeft();
}

TEST_F(MountCommand, TakesAllDownWhereAStepFails) {
    struct Case {
        char const* failing;
        std::string words;
        std::string calls;
    };
    std::string const started = serverCalls(m_rounds);
    for (Case const& one : {
             Case{"nbdfuse",
                  "kelm: nbdfuse cannot show the disk as a file: nbdfuse: no, said "
                  "nbdfuse",
                  started.substr(0, started.find('\n') + 1) + "umount @/record/image\n"},
             {"nbdkit", "kelm: nbdfuse cannot show the disk as a file: nbdkit: no, said nbdkit",
              started + "umount @/record/image\n"},
             {"mount", "kelm: mount failed: mount: no, said mount",
              started + mountCall() + "umount @/record/image\n"},
         }) {
        SCOPED_TRACE(one.failing);
        MountStandIns::fail(one.failing);
        EXPECT_EQ(runBadly(3, {"mount", "disk.vmdk", "mnt"}).find(one.words), 0U);
        EXPECT_EQ(m_standIns.takeCalls(), one.calls);
        expectNothingLeft();
        MountStandIns::fail("");
    }
    runWell({"mount", "disk.vmdk", "mnt"});
    runWell({"umount", "mnt"});
    expectNothingLeft();
}

TEST_F(MountCommand, TakesAllDownWhereItIsInterrupted) {
    struct Case {
        char const* stuck;
        std::string calls;
    };
    std::string const started = serverCalls(m_rounds);
    for (Case const& one :
         {Case{"mount", started + mountCall() + "umount @/mnt\numount @/record/image\n"},
          {"nbdfuse", started.substr(0, started.find('\n') + 1) + "umount @/record/image\n"},
          {"nbdkit", started + "umount @/record/image\n"}}) {
        for (int const number : {SIGINT, SIGTERM, SIGHUP}) {
            SCOPED_TRACE(one.stuck + std::to_string(number));
            MountStandIns::fail(std::string(one.stuck) + "-stuck");
            RunningTool tool(folder(), {"mount", "disk.vmdk", "mnt"});
            EXPECT_EQ(m_standIns.waitForStuck(), one.stuck);
            tool.signal(number);
            // mount is waited for, and nbdkit lives for a moment longer than nbdfuse.
            if (std::string(one.stuck) != "nbdfuse")
                m_standIns.release();
            Outcome const outcome = tool.finish();
            EXPECT_EQ(outcome.status, 10) << outcome.err;
            EXPECT_EQ(outcome.err.find("kelm: Cancelled."), 0U) << outcome.err;
            EXPECT_EQ(m_standIns.takeCalls(), one.calls);
            expectNothingLeft();
        }
    }
}

TEST_F(MountCommand, LeavesABusyFolderAsItIs) {
    runWell({"mount", "disk.vmdk", "mnt"});
    m_standIns.takeCalls();
    MountStandIns::fail("busy");
    EXPECT_EQ(runBadly(6, {"umount", "mnt"}),
              "kelm: The folder is in use. (path: " + path("mnt") + ")\n");
    EXPECT_EQ(m_standIns.takeCalls(), "umount @/mnt\n");
    EXPECT_EQ(readFile("mnt/file"), "file\n");
    MountStandIns::fail("");
    runWell({"umount", "mnt"});
    expectNothingLeft();
}

TEST_F(MountCommand, UmountGoesOnWhereItFailed) {
    runWell({"mount", "disk.vmdk", "mnt"});
    std::filesystem::path const mounted = path("mnt");
    MountStandIns::fail("umount");
    EXPECT_EQ(runBadly(3, {"umount", "mnt"}).find("kelm: umount failed: umount: no, said umount"),
              0U);
    MountStandIns::fail("");
    // Somebody else has taken that away meanwhile.
    ASSERT_EQ(std::system(("umount '" + mounted.string() + "'").c_str()), 0);
    m_standIns.takeCalls();
    runWell({"umount", "mnt"});
    EXPECT_EQ(m_standIns.takeCalls(), "umount @/record/image\n");
    expectNothingLeft();
}

TEST_F(MountCommand, UmountLeavesWhatSomebodyElseHasMounted) {
    runWell({"mount", "disk.vmdk", "mnt"});
    std::filesystem::rename(path("mnt"), path("mnt.ours"));
    std::filesystem::create_directory(path("mnt"));
    m_standIns.takeCalls();
    EXPECT_EQ(runBadly(3, {"umount", "mnt"}),
              "kelm: Something else is mounted on the folder. (path: " + path("mnt") + ")\n");
    EXPECT_EQ(m_standIns.takeCalls(), "");
    std::filesystem::remove(path("mnt"));
    std::filesystem::rename(path("mnt.ours"), path("mnt"));
    runWell({"umount", "mnt"});
    expectNothingLeft();
}

TEST_F(MountCommand, UmountTakesDownWhatAKilledMountHasLeft) {
    MountStandIns::fail("mount-stuck");
    {
        RunningTool tool(folder(), {"mount", "disk.vmdk", "mnt"});
        EXPECT_EQ(m_standIns.waitForStuck(), "mount");
        tool.signal(SIGKILL);
        EXPECT_EQ(tool.finish().status, -1);
    }
    // It mounts all the same, and nobody has written that down.
    m_standIns.release();
    while (!std::filesystem::exists(path("mnt/file"))) {
    }
    MountStandIns::fail("");
    EXPECT_EQ(runBadly(3, {"mount", "disk.vmdk", "mnt"}).find("kelm: A disk is mounted on the "),
              0U);
    m_standIns.takeCalls();
    runWell({"umount", "mnt"});
    EXPECT_EQ(m_standIns.takeCalls(), "umount @/mnt\numount @/record/image\n");
    expectNothingLeft();
}

TEST_F(MountCommand, UmountWaitsForTheServer) {
    runWell({"mount", "disk.vmdk", "mnt"});
    // A server that takes its time is whoever holds the lock still.
    std::filesystem::path record;
    for (auto const& entry : std::filesystem::directory_iterator(path("run/kelm")))
        record = entry.path();
    writeFile("hold", "#!/bin/sh\nexec 9< \"$1\"; flock -s 9; echo held; read word\n");
    test_support::RunningProgram holder(folder(),
                                        {"sh", path("hold"), (record / "alive").string()});
    EXPECT_EQ(holder.readOutput(5), "held\n");
    RunningTool tool(folder(), {"umount", "mnt"});
    // It gets to the wait, and does not end by itself.
    while (std::filesystem::exists(record / "image/nbd")) {
    }
    tool.signal(SIGINT);
    EXPECT_EQ(tool.finish().status, 10);
    EXPECT_TRUE(std::filesystem::exists(record));
    holder.finish();
    runWell({"umount", "mnt"});
    expectNothingLeft();
}

} // namespace

} // namespace endtoend

// The program with disks on a cluster.

#include <cctype>
#include <csignal>

#include "tests/cluster/cluster_backends.h"
#include "tests/cluster/cluster_shell.h"
#include "tests/endtoend/tool_fixture.h"

namespace endtoend {

namespace {

using cluster_shell::comesTrue;
using cluster_shell::isClusterWhole;
using cluster_shell::runScript;
using cluster_shell::standsStill;

constexpr std::size_t kImageBytes = std::size_t{20} << 20;

class ClusterProgram : public ToolTest {
protected:
    ClusterProgram() {
        writeFile("image", makeImage(kImageBytes, 1));
        std::string later = readFile("image");
        later.replace(kImageBytes / 2, 16, "changed on friday");
        later.resize(kImageBytes);
        writeFile("later", later);
        writeFile("password", "secret\n");
    }

    /// Of a disk in the folder of the test.
    std::string disk(std::string const& name) const {
        return (yx::CURI(cluster.folder) << yx::String::fromUTF8(name))
            .toString(true)
            .toStdString();
    }

    void expectHolds(std::string const& name, std::string const& image) const {
        Arguments const password{"--password-file", "password"};
        EXPECT_EQ(runWell(joined({{"compare", name, image}, password})), "equal\n");
        EXPECT_EQ(runWell(joined({{"check", name}, password})), "");
    }

    file_system_backends::Cluster cluster;
};

TEST_F(ClusterProgram, KeepsDisksOfEveryKindAndTheirChildren) {
    Arguments const kinds[] = {{},
                               {"--compressed"},
                               {"--encrypt", "--rounds", "1000"},
                               {"--compressed", "--encrypt", "--rounds", "1000"},
                               {"--split", "8M"},
                               {"--split", "8M", "--compressed"},
                               {"--split", "8M", "--on-demand"},
                               {"--split", "8M", "--on-demand", "--compressed"},
                               {"--split", "8M", "--encrypt", "--rounds", "1000"},
                               {"--split", "8M", "--on-demand", "--encrypt", "--rounds", "1000"}};
    Arguments const password{"--password-file", "password"};
    int number = 0;
    for (Arguments const& kind : kinds) {
        std::string const full = disk("full-" + std::to_string(++number) + ".vmdk");
        std::string const child = disk("child-" + std::to_string(number) + ".vmdk");
        SCOPED_TRACE(full);
        runWell(joined({{"import", "image", full}, password, kind}));
        runWell(joined({{"import", "later", child, "--parent", full}, password, kind}));
        runWell(joined({{"export", child, "out", "--force"}, password}));
        EXPECT_EQ(readFile("out"), readFile("later"));
        runWell(joined({{"flatten", child}, password}));
        expectHolds(child, "later");
    }
}

TEST_F(ClusterProgram, ChainsAndListsAndThinsThem) {
    runWell({"import", "image", disk("full.vmdk"), "--compressed"});
    runWell({"import", "later", disk("tue.vmdk"), "--parent", disk("full.vmdk"), "--compressed"});
    runWell({"import", "image", disk("wed.vmdk"), "--parent", disk("tue.vmdk"), "--compressed"});
    // Both ways between the cluster and this machine.
    runWell({"import", "later", "here.vmdk", "--parent", disk("full.vmdk")});
    runWell({"import", "image", "local.vmdk"});
    runWell({"import", "later", disk("there.vmdk"), "--parent", "local.vmdk"});
    expectHolds("here.vmdk", "later");
    expectHolds(disk("there.vmdk"), "later");
    std::string const list = runWell({"list", disk("")});
    for (char const* const name : {"full.vmdk", "tue.vmdk", "wed.vmdk", "there.vmdk"})
        EXPECT_NE(list.find(name), std::string::npos) << list;
    runWell({"drop", disk("tue.vmdk")});
    expectHolds(disk("wed.vmdk"), "image");
    runWell({"rename", disk("wed.vmdk"), disk("thu.vmdk")});
    expectHolds(disk("thu.vmdk"), "image");
    runWell({"copy", disk("thu.vmdk"), "copy.vmdk"});
    expectHolds("copy.vmdk", "image");
    runWell({"delete", disk("thu.vmdk")});
    EXPECT_EQ(run({"info", disk("thu.vmdk")}).status, 8);
}

TEST_F(ClusterProgram, FindsADiskThatIsBeingWrittenInUse) {
    runWell({"import", "image", disk("a.vmdk")});
    RunningTool writer(folder(), {"import", "-", disk("b.vmdk"), "--size", "20M"});
    ASSERT_TRUE(comesTrue([&] { return cluster.files->fileExists(cluster.uri("b.vmdk")); }));
    EXPECT_EQ(run({"export", disk("b.vmdk"), "out"}).status, 6);
    writer.signal(SIGINT);
    EXPECT_EQ(writer.finish().status, 10);
    EXPECT_FALSE(cluster.files->fileExists(cluster.uri("b.vmdk")));
    expectHolds(disk("a.vmdk"), "image");
}

/// The program where the storage servers are gone: two of three, so that nothing can be written.
class ClusterProgramWithoutServers : public ClusterProgram {
protected:
    ClusterProgramWithoutServers() {
        runWell({"import", "image", disk("a.vmdk")});
        runScript("kill \"$1\" osd.0");
        runScript("kill \"$1\" osd.1");
        EXPECT_TRUE(comesTrue(standsStill));
    }
    ~ClusterProgramWithoutServers() override {
        runScript("revive \"$1\" osd.0");
        runScript("revive \"$1\" osd.1");
        EXPECT_TRUE(comesTrue(isClusterWhole));
    }

    /// Whether the program has said that it waits.
    static bool hasWaited(std::string const& words) {
        return words.find("{\"waiting\":\"store\",\"seconds\":") != std::string::npos;
    }
};

TEST_F(ClusterProgramWithoutServers, GivesUpAfterTheTimeThatItIsGiven) {
    ToolOutcome const outcome =
        run({"import", "later", disk("b.vmdk"), "--store-timeout", "8", "--progress=json"});
    EXPECT_EQ(outcome.status, 3);
    EXPECT_NE(outcome.err.find("The store did not answer within 8 seconds."), std::string::npos)
        << outcome.err;
    EXPECT_TRUE(hasWaited(outcome.err)) << outcome.err;
}

TEST_F(ClusterProgramWithoutServers, IsEndedByASignal) {
    RunningTool tool(folder(), {"import", "later", disk("b.vmdk"), "--progress=json"});
    ASSERT_TRUE(comesTrue([&] { return hasWaited(tool.readErrors()); }));
    tool.signal(SIGINT);
    ToolOutcome const outcome = tool.finish();
    EXPECT_EQ(outcome.status, 10) << outcome.err;
}

} // namespace

} // namespace endtoend

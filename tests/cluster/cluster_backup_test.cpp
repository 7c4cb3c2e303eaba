// kelm-backup with a folder of a cluster as its destination.

#include <csignal>
#include <cstdlib>

#include <nlohmann/json.hpp>

#include "tests/cluster/cluster_backends.h"
#include "tests/cluster/cluster_shell.h"
#include "tests/endtoend/tool_fixture.h"

namespace endtoend {

namespace cluster_backup_test {

namespace {

using cluster_shell::comesTrue;
using nlohmann::json;

constexpr std::size_t kImageBytes = std::size_t{20} << 20;

class ClusterBackup : public ToolTest {
protected:
    ClusterBackup() {
        std::filesystem::create_directory(path("bin"));
        // Whoever imports says which process it is.
        writeFile("bin/kelm", "#!/bin/sh\n[ \"$1\" != import ] || echo $$ > \"" + path("importer") +
                                  "\"\nexec \"" KELM_TOOL "\" \"$@\"\n");
        std::filesystem::permissions(path("bin/kelm"), std::filesystem::perms::owner_all);
        writeImage(1);
    }

    void writeImage(unsigned int day) {
        std::string image = makeImage(kImageBytes, 1);
        image.replace(kImageBytes / 2, 1, 1, static_cast<char>(day));
        writeFile("image", image);
    }

    void configure(std::string const& settings) {
        writeFile("web.conf", "source = " + path("image") + "\ndestination = " + destination() +
                                  "\ncompress = no\n" + settings);
    }

    std::string destination() const { return cluster.folder.toString(true).toStdString(); }

    /// As a machine of the same name, but with folders of its own.
    test_support::RunningProgram start(std::string const& machine) {
        return {folder(),
                {KELM_SOURCE_DIR "/integrations/systemd/kelm-backup", "run", "./web.conf"},
                [this, machine] {
                    std::string const programs = path("bin") + ":" + std::getenv("PATH");
                    ::setenv("PATH", programs.c_str(), 1);
                    ::setenv("RUNTIME_DIRECTORY", path(machine + "/run").c_str(), 1);
                    ::setenv("STATE_DIRECTORY", path(machine + "/state").c_str(), 1);
                }};
    }

    std::string backUp(int status = 0, std::string const& machine = "here") {
        test_support::RunningProgram program = start(machine);
        Outcome const outcome = program.finish();
        EXPECT_EQ(outcome.status, status) << outcome.err;
        return outcome.err;
    }

    std::vector<std::string> listStates() const {
        std::vector<std::string> states;
        for (json const& disk : listDisks())
            states.push_back(disk["state"]);
        return states;
    }

    json listDisks() const {
        return json::parse(runWell({"list", destination(), "--json"}))["disks"];
    }

    void expectNewestHoldsImage() const {
        EXPECT_EQ(runWell({"compare", listDisks().back()["file"], "image"}), "equal\n");
    }

    file_system_backends::Cluster cluster;
};

using States = std::vector<std::string>;

TEST_F(ClusterBackup, MakesAFullDiskAndChildrenAndThinsThemOut) {
    configure("keep-last = 2\ncheck = yes\n");
    for (unsigned int day = 1; day <= 3; ++day) {
        writeImage(day);
        EXPECT_NE(backUp().find("nothing is wrong"), std::string::npos);
        EXPECT_EQ(listStates(), States(std::min(day, 2U), "complete"));
        expectNewestHoldsImage();
    }
    EXPECT_EQ(listDisks().back()["parents"], 1);
}

TEST_F(ClusterBackup, GoesOnAfterAKillAndLeavesTheRunOfAnotherMachineAlone) {
    configure("");
    backUp();
    writeImage(2);
    configure("limit-rate = 1M\n");
    test_support::RunningProgram killed = start("here");
    ASSERT_TRUE(comesTrue([this] { return listStates() == States{"complete", "unfinished"}; }));
    configure("");
    EXPECT_NE(backUp(6, "there").find("in use"), std::string::npos);
    EXPECT_EQ(listStates(), (States{"complete", "unfinished"}));
    killed.signal(SIGKILL);
    ::kill(std::stoi(readFile("importer")), SIGKILL);
    killed.finish();
    EXPECT_NE(backUp().find("was left unfinished; it is deleted."), std::string::npos);
    EXPECT_EQ(listStates(), (States{"complete", "complete"}));
    EXPECT_EQ(listDisks().back()["parents"], 1);
    expectNewestHoldsImage();
    EXPECT_TRUE(std::filesystem::is_empty(path("here/state")));
}

} // namespace

} // namespace cluster_backup_test

} // namespace endtoend

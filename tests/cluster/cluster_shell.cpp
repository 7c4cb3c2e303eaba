#include "tests/cluster/cluster_shell.h"

#include <chrono>
#include <thread>

#include <gtest/gtest.h>

#include "tests/cluster/cluster_backends.h"
#include "tests/support/running_program.h"

namespace cluster_shell {

namespace {

using file_system_backends::getClusterFolder;

/// The output of a program in Python that is given a report of the cluster as `report`.
std::string askCluster(std::string const& command, std::string const& program) {
    std::string answer =
        runInShell("ceph " + command + " --format json 2>/dev/null | python3 -c '" +
                   "import json, sys\nreport = json.load(sys.stdin)\n" + program + "'");
    while (!answer.empty() && answer.back() == '\n')
        answer.pop_back();
    return answer;
}

} // namespace

std::string runInShell(std::string const& commands) {
    test_support::RunningProgram program(
        getClusterFolder(), {"bash", "-ceu", commands, "bash", getClusterFolder().string()});
    test_support::Outcome const outcome = program.finish();
    EXPECT_EQ(outcome.status, 0) << commands << ": " << outcome.err;
    return outcome.out;
}

void runScript(std::string const& arguments) {
    runInShell(std::string(KELM_SOURCE_DIR "/tests/cluster/cluster ") + arguments);
}

bool comesTrue(std::function<bool()> const& isSo) {
    constexpr std::chrono::minutes kLimit(2);
    constexpr std::chrono::milliseconds kPause(50);
    auto const end = std::chrono::steady_clock::now() + kLimit;
    while (!isSo()) {
        if (std::chrono::steady_clock::now() > end)
            return false;
        std::this_thread::sleep_for(kPause);
    }
    return true;
}

void evictLastClient() {
    runInShell("id=$(ceph tell mds.disks:0 client ls 2>/dev/null | python3 -c '"
               "import json, sys; print(max(s[\"id\"] for s in json.load(sys.stdin)))')\n"
               "ceph tell mds.disks:0 client evict id=$id >/dev/null 2>&1");
}

bool isClusterWhole() {
    return askCluster("status", "groups = report[\"pgmap\"]\n"
                                "clean = sum(state[\"count\"] for state in groups[\"pgs_by_state\"]"
                                " if state[\"state_name\"].startswith(\"active+clean\"))\n"
                                "print(report[\"osdmap\"][\"num_up_osds\"] == 3"
                                " and clean == groups[\"num_pgs\"]"
                                " and report[\"fsmap\"][\"up:standby\"] == 1)") == "True";
}

bool standsStill() {
    return askCluster("status", "groups = report[\"pgmap\"]\n"
                                "print(report[\"osdmap\"][\"num_up_osds\"] == 1"
                                " and groups.get(\"inactive_pgs_ratio\", 0) == 1)") == "True";
}

std::string findActiveMetadataServer() {
    return askCluster("fs dump", "info = report[\"filesystems\"][0][\"mdsmap\"][\"info\"]\n"
                                 "print(\"\".join(server[\"name\"] for server in info.values()"
                                 " if server[\"state\"] == \"up:active\"))");
}

} // namespace cluster_shell

// What is on a disk: partitions, and what they hold.

#include <cstdlib>

#include <nlohmann/json.hpp>

#include "host/content/file_system_probe.h"
#include "tests/endtoend/tool_fixture.h"

namespace endtoend {

namespace {

class Files : public ToolTest {
protected:
    void SetUp() override {
        if (!kelm::host::canProbeFileSystems())
            GTEST_SKIP() << "This build has no libblkid.";
        if (!runShell("command -v sfdisk && command -v mke2fs && command -v mkswap"))
            GTEST_SKIP() << "sfdisk, mke2fs or mkswap is missing.";
    }

    bool runShell(std::string const& line) const {
        std::string const command = "cd '" + folder().string() +
                                    "' && PATH=\"$PATH:/usr/sbin:/sbin\" && { " + line +
                                    "; } > words 2>&1";
        return std::system(command.c_str()) == 0;
    }

    /// An ext4 from 1 MiB on, of 8 MiB, and swap behind it if that is wanted.
    void makeDisk(std::string const& table, bool hasSwap = false) const {
        writeFile("table", table);
        ASSERT_TRUE(runShell("truncate -s 16M image && sfdisk -q image < table && "
                             "mke2fs -q -t ext4 -L root -U 11111111-2222-4333-8444-555555555555 "
                             "-E offset=1048576 image 8M"))
            << readFile("words");
        if (hasSwap) {
            ASSERT_TRUE(runShell("truncate -s 4M exchange && "
                                 "mkswap -q -L exchange -U 21111111-2222-4333-8444-555555555555 "
                                 "exchange && dd if=exchange of=image bs=1M seek=9 conv=notrunc"));
        }
        runWell({"import", "image", "disk.vmdk", "--compressed"});
    }
};

TEST_F(Files, OfAGPTAreListed) {
    makeDisk("label: gpt\nlabel-id: 31111111-2222-4333-8444-555555555555\n"
             "start=1MiB, size=8MiB, type=linux, name=\"the root\", "
             "uuid=41111111-2222-4333-8444-555555555555\n"
             "start=9MiB, size=4MiB, type=swap, uuid=51111111-2222-4333-8444-555555555555\n"
             "start=13MiB, size=1MiB, type=uefi, uuid=61111111-2222-4333-8444-555555555555\n",
             true);
    EXPECT_EQ(runWell({"files", "disk.vmdk"}),
              "partition table: GPT, UUID 31111111-2222-4333-8444-555555555555\n"
              "partition 1: starts at byte 1048576, 8.0 MiB, Linux file system, label the root, "
              "UUID 41111111-2222-4333-8444-555555555555\n"
              "    holds ext4, label root, UUID 11111111-2222-4333-8444-555555555555\n"
              "partition 2: starts at byte 9437184, 4.0 MiB, Linux swap, "
              "UUID 51111111-2222-4333-8444-555555555555\n"
              "    holds swap, label exchange, UUID 21111111-2222-4333-8444-555555555555\n"
              "partition 3: starts at byte 13631488, 1.0 MiB, EFI system, "
              "UUID 61111111-2222-4333-8444-555555555555\n"
              "    holds nothing that is known\n");
    auto const told = nlohmann::json::parse(runWell({"files", "disk.vmdk", "--json"}));
    EXPECT_EQ(told["sizeBytes"], 16 << 20);
    EXPECT_EQ(told["table"], nlohmann::json::parse(R"({"type": "gpt",
        "uuid": "31111111-2222-4333-8444-555555555555", "sectorSizeBytes": 512})"));
    EXPECT_EQ(told["partitions"][0], nlohmann::json::parse(R"({"number": 1, "startBytes": 1048576,
        "sizeBytes": 8388608, "type": "0fc63daf-8483-4772-8e79-3d69d8477de4",
        "typeName": "Linux file system", "label": "the root",
        "uuid": "41111111-2222-4333-8444-555555555555",
        "fileSystem": {"type": "ext4", "usage": "filesystem", "label": "root",
                       "uuid": "11111111-2222-4333-8444-555555555555"}})"));
    EXPECT_EQ(told["partitions"][2].count("fileSystem"), 0U);
    EXPECT_EQ(told.count("fileSystem"), 0U);
}

TEST_F(Files, OfAnMBRWithAnExtendedPartitionAreListed) {
    makeDisk("label: dos\nlabel-id: 0x2ab54c28\nstart=2048, size=16384, type=83\n"
             "start=18432, size=14336, type=5\nstart=20480, size=2048, type=82\n");
    EXPECT_EQ(runWell({"files", "disk.vmdk"}),
              "partition table: MBR, UUID 2ab54c28\n"
              "partition 1: starts at byte 1048576, 8.0 MiB, Linux, UUID 2ab54c28-01\n"
              "    holds ext4, label root, UUID 11111111-2222-4333-8444-555555555555\n"
              "partition 2: starts at byte 9437184, 7.0 MiB, extended, UUID 2ab54c28-02\n"
              "partition 5: starts at byte 10485760, 1.0 MiB, Linux swap, UUID 2ab54c28-05\n"
              "    holds nothing that is known\n");
}

TEST_F(Files, OfADiskWithoutPartitionsAreThoseOfTheWhole) {
    ASSERT_TRUE(runShell("truncate -s 8M image && mke2fs -q -t ext2 -L 'a\tb' "
                         "-U 11111111-2222-4333-8444-555555555555 image"));
    runWell({"import", "image", "disk.vmdk"});
    EXPECT_EQ(runWell({"files", "disk.vmdk"}),
              "no partitions\n"
              "    holds ext2, label a\\tb, UUID 11111111-2222-4333-8444-555555555555\n");
    auto const told = nlohmann::json::parse(runWell({"files", "disk.vmdk", "--json"}));
    EXPECT_EQ(told["partitions"], nlohmann::json::array());
    EXPECT_EQ(told["fileSystem"]["label"], "a\tb");
    EXPECT_EQ(told.count("table"), 0U);
}

TEST_F(Files, OfAnEmptyDiskAreNone) {
    runWell({"create", "disk.vmdk", "--size", "8M"});
    EXPECT_EQ(runWell({"files", "disk.vmdk"}), "no partitions\n    holds nothing that is known\n");
}

TEST_F(Files, WarnsOfADamagedTable) {
    makeDisk("label: gpt\nstart=1MiB, size=8MiB, type=linux\n");
    std::string const good = runWell({"files", "disk.vmdk"});
    ASSERT_TRUE(runShell("printf x | dd of=image bs=1 seek=600 conv=notrunc"));
    runWell({"import", "image", "disk.vmdk", "--force"});
    Outcome const outcome = run({"files", "disk.vmdk"});
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.out, good);
    EXPECT_EQ(outcome.err, "kelm: warning: The first copy of the partition table is damaged; this "
                           "is the second one.\n");
}

} // namespace

} // namespace endtoend

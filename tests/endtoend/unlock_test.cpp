// Who holds a disk, and how it is freed.

#include <cstdlib>

#include <nlohmann/json.hpp>

#include "tests/endtoend/store_fixture.h"

namespace endtoend {

namespace unlock_test {

namespace {

using nlohmann::json;

/// A store that knows its holders, and a program that is filling a disk in it.
class Unlock : public StoreTest {
protected:
    Unlock() {
        ::setenv("KELM_TEST_HOLDERS", path("holders").c_str(), 1);
        runWell({"import", "image", "test:/disk.vmdk"});
    }
    ~Unlock() override { ::unsetenv("KELM_TEST_HOLDERS"); }

    /// Fills "busy.vmdk" of the store, and stops in the middle: what is fed is more than fits into a
    /// pipe, so the disk is there when it has been fed.
    void beginToWrite() {
        m_writer = std::make_unique<RunningTool>(
            folder(), Arguments{"import", "-", "test:/busy.vmdk", "--size", "8M"});
        m_writer->feed(readFile("image").substr(0, kImageBytes / 2));
    }

    std::string writerNumber() const { return std::to_string(m_writer->id()); }

    /// The lines of a client of the process that fills the disk.
    std::string linesOfWriter(std::string const& life) const {
        std::string const client = "7 backup-2 writer " + writerNumber() + " " + life + " ";
        return client + "busy.vmdk.lock write\n" + client + "busy.vmdk write changes\n";
    }

    std::string describeWriter() const {
        return "client 7 on the host backup-2, process " + writerNumber() + ", user writer";
    }

    static std::string inUse() {
        return "kelm: The disk is in use: its lock file is held by another program or another open "
               "disk. (uri: test:/busy.vmdk.lock)";
    }

    std::unique_ptr<RunningTool> m_writer;
};

TEST_F(Unlock, ADiskThatNobodyHoldsIsFree) {
    runWell({"import", "image", "here.vmdk"});
    runWell({"import", "image", "test:/split.vmdk", "--split", "4M"});
    for (char const* const disk : {"test:/disk.vmdk", "test:/split.vmdk", "here.vmdk"}) {
        EXPECT_EQ(runWell({"unlock", disk}), "free\n") << disk;
        EXPECT_EQ(runWell({"unlock", disk, "--force"}), "free\n") << disk;
        expectEqual(disk, "image");
    }
    EXPECT_EQ(listStore().count("disk.vmdk.lock"), 0U);
}

TEST_F(Unlock, ALockFileThatWasLeftGoes) {
    writeFile("store/disk.vmdk.lock", "");
    EXPECT_EQ(runWell({"unlock", "test:/disk.vmdk"}), "free\n");
    EXPECT_EQ(listStore().count("disk.vmdk.lock"), 0U);
}

TEST_F(Unlock, ADiskOfTheMachineBelongsToAProcessThatLives) {
    RunningTool writer(folder(), {"import", "-", "here.vmdk", "--size", "8M"});
    writer.feed(readFile("image").substr(0, kImageBytes / 2));
    for (Arguments const& command :
         {Arguments{"unlock", "here.vmdk"}, Arguments{"unlock", "here.vmdk", "--force"}}) {
        ToolOutcome const outcome = run(command);
        EXPECT_EQ(outcome.status, 6);
        EXPECT_EQ(outcome.out,
                  "held by a process that lives; what it holds is free when it ends\n");
        EXPECT_EQ(outcome.err, "kelm: The disk is in use: its lock file is held by another program "
                               "or another open disk. (uri: " +
                                   path("here.vmdk.lock") + ")\n");
    }
    writer.feed(readFile("image").substr(kImageBytes / 2, kImageBytes - 512 - kImageBytes / 2));
    writer.finish();
    EXPECT_EQ(runWell({"unlock", "here.vmdk"}), "free\n");
}

TEST_F(Unlock, AHolderOfAnotherMachineIsNamedAndKeepsTheDisk) {
    beginToWrite();
    writeFile("holders", linesOfWriter("unknown"));
    ToolOutcome const outcome = run({"unlock", "test:/busy.vmdk"});
    EXPECT_EQ(outcome.status, 6);
    EXPECT_EQ(outcome.out, "held by: " + describeWriter() + "\n");
    EXPECT_EQ(outcome.err, inUse() + " If the holders on other machines are dead, --force has the "
                                     "store shut them out.\n");
    EXPECT_EQ(readFile("holders"), linesOfWriter("unknown"));
    EXPECT_EQ(run({"info", "test:/busy.vmdk"}).err, inUse() + " 'kelm unlock' says by whom.\n");
}

TEST_F(Unlock, ByForceAHolderOfAnotherMachineIsShutOut) {
    beginToWrite();
    writeFile("holders",
              "8 backup-3 reader 0 unknown disk.vmdk write\n" + linesOfWriter("unknown"));
    EXPECT_EQ(runWell({"unlock", "test:/busy.vmdk", "--force"}),
              "shut out: " + describeWriter() + "\nfree\n");
    // Who holds another disk alone stays.
    EXPECT_EQ(readFile("holders"), "8 backup-3 reader 0 unknown disk.vmdk write\n");
    runWell({"import", "image", "test:/busy.vmdk", "--force"});
    expectEqual("test:/busy.vmdk", "image");
}

TEST_F(Unlock, AProcessOfThisMachineThatLivesIsNotShutOut) {
    beginToWrite();
    writeFile("holders", linesOfWriter("lives"));
    for (Arguments const& command : {Arguments{"unlock", "test:/busy.vmdk"},
                                     Arguments{"unlock", "test:/busy.vmdk", "--force"}}) {
        ToolOutcome const outcome = run(command);
        EXPECT_EQ(outcome.status, 6);
        EXPECT_EQ(outcome.out, "held by: " + describeWriter() + ", which lives on this machine\n");
        EXPECT_EQ(outcome.err, inUse() + "\n");
    }
    EXPECT_EQ(readFile("holders"), linesOfWriter("lives"));
}

TEST_F(Unlock, AProcessOfThisMachineThatHasEndedIsShutOutWithoutForce) {
    beginToWrite();
    writeFile("holders", linesOfWriter("died"));
    EXPECT_EQ(runWell({"unlock", "test:/busy.vmdk"}),
              "shut out: " + describeWriter() + ", which has ended on this machine\nfree\n");
}

TEST_F(Unlock, WhoHasAnExtentCountsAndWhoOnlyReadsWithoutALockDoesNot) {
    runWell({"import", "image", "test:/split.vmdk", "--split", "4M"});
    std::string const list = "3 a u 0 unknown split-s00001.vmdk write\n"
                             "4 b u 0 unknown split-s00002.vmdk changes\n"
                             "5 c u 0 unknown split.vmdk open\n";
    writeFile("holders", list);
    ToolOutcome const outcome = run({"unlock", "test:/split.vmdk"});
    EXPECT_EQ(outcome.status, 6);
    EXPECT_EQ(outcome.out, "held by: client 3 on the host a, process 0, user u\n");
    EXPECT_EQ(readFile("holders"), list);
    EXPECT_EQ(runWell({"unlock", "test:/split.vmdk", "--force"}),
              "shut out: client 3 on the host a, process 0, user u\n"
              "shut out: client 4 on the host b, process 0, user u\nfree\n");
    EXPECT_EQ(readFile("holders"), "5 c u 0 unknown split.vmdk open\n");
}

TEST_F(Unlock, WhoLivesGivesBackWhatItHasNotOpenAndTheDeadDoNot) {
    std::string const living =
        "3 a u 0 lives disk.vmdk changes\n4 b u 0 unknown disk.vmdk changes\n";
    writeFile("holders", living + "5 c u 0 died disk.vmdk nothing\n");
    EXPECT_EQ(runWell({"unlock", "test:/disk.vmdk"}),
              "shut out: client 5 on the host c, process 0, user u, which has ended on this "
              "machine\nfree\n");
    EXPECT_EQ(readFile("holders"), living);
    EXPECT_EQ(runWell({"unlock", "test:/disk.vmdk", "--force"}),
              "shut out: client 4 on the host b, process 0, user u\nfree\n");
    EXPECT_EQ(readFile("holders"), "3 a u 0 lives disk.vmdk changes\n");
}

TEST_F(Unlock, AHolderThatHasAFileOpenForReadingIsFoundWhereTheDiskIsLocked) {
    beginToWrite();
    std::string const line = "9 far user " + writerNumber() + " unknown busy.vmdk open\n";
    writeFile("holders", line);
    ToolOutcome const outcome = run({"unlock", "test:/busy.vmdk"});
    EXPECT_EQ(outcome.status, 6);
    EXPECT_EQ(outcome.out,
              "held by: client 9 on the host far, process " + writerNumber() + ", user user\n");
    EXPECT_EQ(runWell({"unlock", "test:/busy.vmdk", "--force"}),
              "shut out: client 9 on the host far, process " + writerNumber() +
                  ", user user\nfree\n");
}

TEST_F(Unlock, FilesThatADescriptorNamesAndThatAreOfAnotherDiskFreeNobody) {
    runWell({"import", "image", "test:/split.vmdk", "--split", "4M"});
    std::string descriptor = readFile("store/split.vmdk");
    std::size_t const name = descriptor.find("split-s00001.vmdk");
    ASSERT_NE(name, std::string::npos);
    descriptor.replace(name, std::string("split-s00001.vmdk").size(), "disk.vmdk");
    writeFile("store/split.vmdk", descriptor);
    std::string const list = "3 a u 0 unknown disk.vmdk write\n";
    writeFile("holders", list);
    EXPECT_EQ(runBadly(3, {"unlock", "test:/split.vmdk", "--force"}),
              "kelm: The disk names a file that is no extent of a disk. (uri: test:/disk.vmdk)\n");
    EXPECT_EQ(readFile("holders"), list);
}

TEST_F(Unlock, AUserWhoMayNotAskIsToldSo) {
    writeFile("holders", "denied\n");
    EXPECT_EQ(runWell({"unlock", "test:/disk.vmdk"}), "free\n");
    std::string const denied = "Ask somebody else. (uri: test:/disk.vmdk.lock)\n";
    EXPECT_EQ(runBadly(3, {"unlock", "test:/disk.vmdk", "--force"}), "kelm: " + denied);
    beginToWrite();
    ToolOutcome const outcome = run({"unlock", "test:/busy.vmdk"});
    EXPECT_EQ(outcome.status, 6);
    EXPECT_EQ(outcome.out, "held, by whom is not known: Ask somebody else. (uri: "
                           "test:/busy.vmdk.lock)\n");
    EXPECT_EQ(outcome.err, inUse() + "\n");
}

TEST_F(Unlock, ADamagedDiskIsUnlockedAndAMissingOneIsNone) {
    writeFile("store/torn.vmdk", readFile("store/disk.vmdk").substr(0, 700));
    EXPECT_EQ(runWell({"unlock", "test:/torn.vmdk"}), "free\n");
    EXPECT_EQ(runBadly(8, {"unlock", "test:/none.vmdk"}),
              "kelm: The disk does not exist. (uri: test:/none.vmdk)\n");
    EXPECT_EQ(listStore().count("none.vmdk.lock"), 0U);
}

TEST_F(Unlock, ProgramsAreToldOfHoldersByOneObject) {
    beginToWrite();
    writeFile("holders", linesOfWriter("unknown"));
    ToolOutcome const outcome = run({"unlock", "test:/busy.vmdk", "--json"});
    EXPECT_EQ(outcome.status, 6);
    json const object = json::parse(outcome.out);
    EXPECT_EQ(object["file"], "test:/busy.vmdk");
    EXPECT_EQ(object["free"], false);
    EXPECT_EQ(object["holdersKnown"], true);
    EXPECT_EQ(object["shutOut"], json::array());
    EXPECT_EQ(object["error"]["code"], "InUse");
    json const file{{"file", "test:/busy.vmdk.lock"}, {"open", true}, {"forWriting", true}};
    json const mainFile{{"file", "test:/busy.vmdk"}, {"open", true}, {"forWriting", true}};
    json const holder{{"client", "7"},
                      {"host", "backup-2"},
                      {"user", "writer"},
                      {"process", writerNumber()},
                      {"life", "unknown"},
                      {"missed", false},
                      {"files", {file, mainFile}}};
    EXPECT_EQ(object["holders"], json::array({holder}));
    json const freed = json::parse(runWell({"unlock", "test:/busy.vmdk", "--force", "--json"}));
    EXPECT_EQ(freed["free"], true);
    EXPECT_EQ(freed["holders"], json::array());
    EXPECT_EQ(freed["shutOut"], json::array({holder}));
}

TEST_F(Unlock, WaitsForAHolderThatEnds) {
    beginToWrite();
    RunningTool waiting(folder(), {"unlock", "test:/busy.vmdk", "--wait", "600"});
    m_writer->feed(readFile("image").substr(kImageBytes / 2, kImageBytes - 512 - kImageBytes / 2));
    m_writer->finish();
    ToolOutcome const outcome = waiting.finish();
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    EXPECT_EQ(outcome.out, "free\n");
}

} // namespace

} // namespace unlock_test

} // namespace endtoend

// Disks in a store that are in use, unfinished or missing, and names that lead nowhere.

#include <csignal>

#include <nlohmann/json.hpp>

#include "tests/endtoend/store_fixture.h"

namespace endtoend {

namespace store_failure_test {

namespace {

using nlohmann::json;

class StoreFailure : public StoreTest {
protected:
    static std::string inUse(std::string const& disk) {
        return "kelm: The disk is in use: its lock file is held by another program or another open "
               "disk. (uri: " +
               disk + ".lock)\n";
    }

    /// Imports from a pipe, of which this much has come. Once it is taken, the disk is open.
    static void feedSome(RunningTool& writer) {
        writer.feed(std::string(std::size_t{1} << 20, 'x'));
    }
};

TEST_F(StoreFailure, AWriterKeepsAllOthersOut) {
    RunningTool writer(folder(), {"import", "-", "test:/disk.vmdk", "--size", "8M"});
    feedSome(writer);
    Arguments const commands[] = {{"check", "test:/disk.vmdk"},
                                  {"info", "test:/disk.vmdk"},
                                  {"export", "test:/disk.vmdk", "out"},
                                  {"rename", "test:/disk.vmdk", "test:/new.vmdk"},
                                  {"copy", "test:/disk.vmdk", "new.vmdk"},
                                  {"delete", "test:/disk.vmdk"},
                                  {"import", "image", "test:/disk.vmdk", "--force"}};
    for (Arguments const& command : commands) {
        SCOPED_TRACE(command.front());
        EXPECT_EQ(runBadly(6, command), inUse("test:/disk.vmdk"));
    }
    // Another name of the same file leads to no second writer, and no reader.
    std::filesystem::create_hard_link(path("store/disk.vmdk"), path("store/other.vmdk"));
    EXPECT_EQ(run({"check", "test:/other.vmdk"}).status, 6);
    writer.signal(SIGINT);
    EXPECT_EQ(writer.finish().status, 10);
}

TEST_F(StoreFailure, AReaderLetsReadersInAndKeepsWritersOut) {
    runWell({"import", "image", "test:/disk.vmdk"});
    RunningTool reader(folder(), {"export", "test:/disk.vmdk", "-", "--quiet"});
    // Begun, and more to come than a pipe holds.
    EXPECT_EQ(reader.readOutput(1).size(), 1U);
    EXPECT_EQ(runWell({"check", "test:/disk.vmdk"}), "");
    EXPECT_EQ(runWell({"compare", "test:/disk.vmdk", "image"}), "equal\n");
    EXPECT_EQ(runBadly(6, {"compact", "test:/disk.vmdk"}), inUse("test:/disk.vmdk"));
    EXPECT_EQ(runBadly(6, {"delete", "test:/disk.vmdk"}), inUse("test:/disk.vmdk"));
    EXPECT_EQ(reader.finish().status, 0);
    runWell({"delete", "test:/disk.vmdk"});
    EXPECT_EQ(listStore(), (std::set<std::string>{"days"}));
}

TEST_F(StoreFailure, KilledImportIsKnownAsSuchAndGoesOn) {
    RunningTool writer(folder(), {"import", "-", "test:/disk.vmdk", "--size", "8388608"});
    feedSome(writer);
    writer.signal(SIGKILL);
    writer.finish();
    EXPECT_EQ(runBadly(5, {"export", "test:/disk.vmdk", "out"}),
              "kelm: The disk is unfinished: it has not been filled to its end. (uri: "
              "test:/disk.vmdk) Go on filling it with 'import --resume', or make it anew; "
              "--unfinished reads it as it is.\n");
    EXPECT_EQ(json::parse(runWell({"list", "test:/", "--json"}))["disks"][0]["state"],
              "unfinished");
    writeFile("whole", std::string(std::size_t{8} << 20, 'x'));
    RunningTool resumed(folder(),
                        {"import", "-", "test:/disk.vmdk", "--size", "8388608", "--resume"});
    resumed.feed(readFile("whole"));
    resumed.closeInput();
    EXPECT_EQ(resumed.finish().status, 0);
    expectEqual("test:/disk.vmdk", "whole");
    EXPECT_EQ(listStore(), (std::set<std::string>{"days", "disk.vmdk", "disk.vmdk.digests"}));
}

TEST_F(StoreFailure, InterruptedWorkLeavesNothing) {
    RunningTool writer(folder(),
                       {"import", "-", "test:/disk.vmdk", "--size", "8M", "--split", "4M"});
    feedSome(writer);
    writer.signal(SIGTERM);
    Outcome const outcome = writer.finish();
    EXPECT_EQ(outcome.status, 10);
    EXPECT_EQ(outcome.err, "kelm: Cancelled.\n");
    EXPECT_EQ(listStore(), (std::set<std::string>{"days"}));
}

TEST_F(StoreFailure, InterruptedReplacingBringsTheFormerDiskBack) {
    runWell({"import", "image", "test:/disk.vmdk", "--split", "4M"});
    std::set<std::string> const before = listStore();
    EXPECT_EQ(runBadly(3, {"import", "later", "test:/disk.vmdk"}),
              "kelm: The file exists already. (uri: test:/disk.vmdk)\n");
    RunningTool writer(folder(), {"import", "-", "test:/disk.vmdk", "--size", "8M", "--force"});
    feedSome(writer);
    EXPECT_EQ(listStore().count("disk.vmdk.former"), 1U);
    writer.signal(SIGINT);
    EXPECT_EQ(writer.finish().status, 10);
    EXPECT_EQ(listStore(), before);
    expectEqual("test:/disk.vmdk", "image");
    runWell({"import", "later", "test:/disk.vmdk", "--force"});
    expectEqual("test:/disk.vmdk", "later");
    EXPECT_EQ(listStore(), (std::set<std::string>{"days", "disk.vmdk", "disk.vmdk.digests"}));
}

TEST_F(StoreFailure, KilledReplacingKeepsTheFormerDiskWhole) {
    runWell({"import", "image", "test:/disk.vmdk"});
    RunningTool writer(folder(), {"import", "-", "test:/disk.vmdk", "--size", "8M", "--force"});
    feedSome(writer);
    writer.signal(SIGKILL);
    writer.finish();
    EXPECT_NE(run({"info", "test:/disk.vmdk"})
                  .err.find("kelm: warning: The disk that was to be replaced is still kept in "
                            "'test:/disk.vmdk.former'. Move its files back, or delete the "
                            "folder.\n"),
              std::string::npos);
    expectEqual("test:/disk.vmdk.former/disk.vmdk", "image");
}

TEST_F(StoreFailure, WhatIsMissingIsNamed) {
    EXPECT_EQ(runBadly(8, {"info", "test:/none.vmdk"}),
              "kelm: The disk does not exist. (uri: test:/none.vmdk)\n");
    EXPECT_EQ(runBadly(8, {"info", "test:/nowhere/none.vmdk"}),
              "kelm: No such file or directory (uri: test:/nowhere/none.vmdk)\n");
    EXPECT_EQ(runBadly(8, {"list", "test:/nowhere"}),
              "kelm: Cannot list the folder: No such file or directory (uri: test:/nowhere)\n");
    EXPECT_EQ(runBadly(8, {"compare", "image", "test:/none.vmdk"}),
              "kelm: The disk does not exist. (uri: test:/none.vmdk)\n");
    json const error = json::parse(run({"info", "test:/none.vmdk", "--json"}).out)["error"];
    EXPECT_EQ(error["code"], "NotFound");
    EXPECT_EQ(error["file"], "test:/none.vmdk");
    runWell({"import", "image", "test:/full.vmdk"});
    runWell({"child", "test:/full.vmdk", "here.vmdk"});
    std::filesystem::remove(path("store/full.vmdk"));
    std::string const words = runBadly(8, {"export", "here.vmdk", "out"});
    EXPECT_NE(words.find("test:/full.vmdk"), std::string::npos) << words;
    EXPECT_EQ(words.find(path("store")), std::string::npos) << words;
}

TEST_F(StoreFailure, SchemesWithoutAStoreAreToldClearly) {
    test_support::HiddenStores const hidden(path("libraries"));
    for (std::string const disk : {"ceph:/disk.vmdk", "CEPH:/disk.vmdk", "s3://bucket/disk.vmdk",
                                   "https://host/disk.vmdk"}) {
        SCOPED_TRACE(disk);
        std::string scheme = disk.substr(0, disk.find(':'));
        if (scheme == "CEPH")
            scheme = "ceph";
        std::string const words =
            "kelm: There is no store for '" + scheme + ":' here. (uri: " + disk + ")\n";
        EXPECT_EQ(runBadly(3, {"info", disk}), words);
        EXPECT_EQ(runBadly(3, {"import", "image", disk}), words);
    }
    EXPECT_EQ(runBadly(8, {"info", "other:/disk.vmdk"}),
              "kelm: There is no store for 'other:' here, and no such file or directory. (uri: "
              "other:/disk.vmdk)\n");
    runWell({"create", "disk.vmdk", "--size", "8M"});
    patchFile("disk.vmdk", 0, "");
    ::setenv("KELM_STORES", path("none").c_str(), 1);
    EXPECT_EQ(runBadly(8, {"info", "test:/disk.vmdk"}),
              "kelm: There is no store for 'test:' here, and no such file or directory. (uri: "
              "test:/disk.vmdk)\n");
}

TEST_F(StoreFailure, ALibraryThatIsNoneSaysWhy) {
    std::filesystem::create_directory(path("stores"));
    writeFile("stores/kelm-files-ceph.so", "no library");
    ::setenv("KELM_STORES", path("stores").c_str(), 1);
    std::string const words = runBadly(3, {"info", "ceph:/disk.vmdk"});
    EXPECT_EQ(words.find("kelm: There is no store for 'ceph:' here. " +
                         path("stores/kelm-files-ceph.so") + ": "),
              0U)
        << words;
}

TEST_F(StoreFailure, AParentWhoseStoreIsMissingIsNamed) {
    runWell({"import", "image", "test:/full.vmdk"});
    runWell({"child", "test:/full.vmdk", "here.vmdk"});
    ::setenv("KELM_STORES", path("none").c_str(), 1);
    std::string const words = runBadly(3, {"export", "here.vmdk", "out"});
    EXPECT_NE(words.find("There is no store for 'test:' here. (uri: test:/full.vmdk)"),
              std::string::npos)
        << words;
    EXPECT_EQ(listFiles().count("out"), 0U);
}

TEST_F(StoreFailure, ImagesAndOtherFilesStayOnTheMachine) {
    runWell({"import", "image", "test:/full.vmdk"});
    std::set<std::string> const before = listStore();
    writeFile("store/raw", "no disk\n");
    struct Case {
        Arguments command;
        std::string words;
    };
    Case const cases[] = {
        {{"import", "test:/raw", "new.vmdk"}, "The image must lie on this machine"},
        {{"import", "test:/raw", "test:/full.vmdk", "--resume"},
         "The image must lie on this machine"},
        {{"export", "test:/full.vmdk", "test:/raw"}, "The image must lie on this machine"},
        {{"export", "test:/full.vmdk", "ceph:/raw"}, "The image must lie on this machine"},
        {{"compare", "image", "test:/raw"}, "A raw image must lie on this machine"},
        {{"map", "test:/full.vmdk", "--svg", "test:/raw"}, "The picture must lie on this machine"},
        {{"list", "test:/", "--svg", "test:/raw"}, "The picture must lie on this machine"},
        {{"info", "test:/full.vmdk", "--password-file", "test:/raw"},
         "The file with a password must lie on this machine"},
        {{"import", "later", "test:/new.vmdk", "--parent", "test:/full.vmdk", "--changed",
          "test:/raw"},
         "The list of changes must lie on this machine"},
    };
    for (Case const& each : cases) {
        SCOPED_TRACE(each.command.front());
        std::string const words = runBadly(2, each.command);
        EXPECT_EQ(words.find("kelm: " + each.words + ", not in a store: "), 0U) << words;
    }
    EXPECT_EQ(readFile("store/raw"), "no disk\n");
    std::filesystem::remove(path("store/raw"));
    EXPECT_EQ(listStore(), before);
    // A file of that name, and not of the store.
    std::filesystem::create_directory(path("test:"));
    std::filesystem::copy(path("image"), path("test:/raw"));
    runWell({"import", "./test:/raw", "new.vmdk"});
    expectEqual("new.vmdk", "image");
}

TEST_F(StoreFailure, AFolderIsNoDiskAndADiskNoFolder) {
    runWell({"import", "image", "test:/full.vmdk"});
    EXPECT_EQ(runBadly(2, {"import", "image", "test:/days"}),
              "kelm: A disk cannot take the place of something that is no regular file.\n");
    EXPECT_EQ(run({"list", "test:/full.vmdk"}).status, 8);
    EXPECT_EQ(run({"info", "test:/days"}).status, run({"info", "store/days"}).status);
}

} // namespace

} // namespace store_failure_test

} // namespace endtoend

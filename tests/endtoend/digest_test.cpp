#include <csignal>
#include <cstdlib>
#include <regex>

#include "tests/endtoend/tool_fixture.h"

namespace endtoend {

namespace {

/// The digests of a disk, as a user makes and uses them.
class Digests : public ToolTest {
protected:
    Digests() {
        writeFile("image", makeImage(kImageBytes, 41));
        writeFile("password", "secret\n");
    }

    /// Changes a byte of a file that is none of the metadata: in its last grain.
    void damage(std::string const& name) const {
        std::string const file = readFile(name);
        std::size_t const at = file.size() - 20000;
        patchFile(name, at, std::string(1, static_cast<char>(file[at] ^ 1)));
    }

    /// What sha256sum prints for its input.
    std::string sumOf(std::string const& name) const {
        std::string const command = "sha256sum < '" + path(name) + "' > '" + path("sum") + "'";
        EXPECT_EQ(std::system(command.c_str()), 0);
        std::string sum = readFile("sum");
        std::filesystem::remove(path("sum"));
        return sum;
    }

    static constexpr std::size_t kImageBytes = (std::size_t{8} << 20) + 12345;
};

TEST_F(Digests, AreMadeByImportAndConvert) {
    runWell({"import", "image", "disk.vmdk"});
    runWell({"convert", "disk.vmdk", "copy.vmdk", "--compressed", "--encrypt", "--rounds", "1000",
             "--password-file", "password"});
    EXPECT_EQ(listFiles(), (std::set<std::string>{"copy.vmdk", "copy.vmdk.digests", "disk.vmdk",
                                                  "disk.vmdk.digests", "image", "password"}));
    EXPECT_EQ(runWell({"check", "disk.vmdk", "--digests"}), "");
    EXPECT_EQ(runWell({"check", "copy.vmdk", "--digests", "--password-file", "password"}), "");
}

TEST_F(Digests, AreNotMadeWhereNobodyWantsThem) {
    runWell({"import", "image", "disk.vmdk", "--no-digests"});
    runWell({"convert", "disk.vmdk", "copy.vmdk", "--no-digests"});
    EXPECT_EQ(listFiles(), (std::set<std::string>{"copy.vmdk", "disk.vmdk", "image", "password"}));
    EXPECT_EQ(runWell({"check", "disk.vmdk"}), "");
    EXPECT_EQ(runBadly(2, {"import", "image", "new.vmdk", "--no-digests", "--image-digest"}),
              "kelm: The digest of the image is one of the digests; leave out --no-digests.\n");
    Outcome const outcome = run({"check", "disk.vmdk", "--digests"});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.out, path("disk.vmdk") + ": the disk has no digests\n1 finding\n");
}

TEST_F(Digests, CanBeMadeForAnyDisk) {
    runWell({"import", "image", "disk.vmdk", "--no-digests", "--split", "4M"});
    runWell({"digest", "disk.vmdk"});
    EXPECT_EQ(runWell({"check", "disk.vmdk", "--digests"}), "");
    EXPECT_EQ(runBadly(2, {"digest", "disk.vmdk"}),
              "kelm: The disk has digests that are up to date. Compare it with them by 'kelm "
              "check', or make them anew with --force.\n");
    runWell({"digest", "disk.vmdk", "--force"});
    EXPECT_EQ(runWell({"check", "disk.vmdk", "--digests"}), "");
}

TEST_F(Digests, FindWhatNothingElseDoes) {
    runWell({"import", "image", "disk.vmdk"});
    damage("disk.vmdk");
    Outcome const outcome = run({"check", "disk.vmdk"});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_TRUE(std::regex_match(outcome.out,
                                 std::regex(path("disk.vmdk") +
                                            ": grain \\d+: its content differs from its digest "
                                            "\\(bytes: \\d+-\\d+\\)\n1 finding\n")))
        << outcome.out;
    std::filesystem::remove(path("disk.vmdk.digests"));
    EXPECT_EQ(runWell({"check", "disk.vmdk"}), "");
}

TEST_F(Digests, AreComparedOfTheDiskAloneWhereThatIsWanted) {
    runWell({"import", "image", "full.vmdk"});
    writeFile("later", makeImage(kImageBytes, 42));
    runWell({"import", "later", "mon.vmdk", "--parent", "full.vmdk"});
    damage("full.vmdk");
    EXPECT_EQ(run({"check", "mon.vmdk"}).status, 1);
    EXPECT_EQ(runWell({"check", "mon.vmdk", "--own"}), "");
    damage("mon.vmdk");
    EXPECT_EQ(run({"check", "mon.vmdk", "--own"}).status, 1);
}

TEST_F(Digests, ARandomPartSaysHowSureItIs) {
    runWell({"import", "image", "disk.vmdk"});
    std::string const half = runWell({"check", "disk.vmdk", "--sample", "50", "--seed", "7"});
    EXPECT_TRUE(std::regex_match(
        half, std::regex("read \\d+ of \\d+ grains \\(seed 7\\); with 95 % certainty, at most "
                         "[0-9.]+ % of them are damaged\n")))
        << half;
    EXPECT_EQ(half, runWell({"check", "disk.vmdk", "--sample", "50", "--seed", "7"}));
    std::string const all = runWell({"check", "disk.vmdk", "--sample", "100", "--seed", "7"});
    EXPECT_TRUE(std::regex_match(all, std::regex("read (\\d+) of \\1 grains \\(seed 7\\)\n")))
        << all;
    EXPECT_TRUE(std::regex_search(runWell({"check", "disk.vmdk", "--sample", "1"}),
                                  std::regex("\\(seed [1-9]\\d*\\)")));
    damage("disk.vmdk");
    Outcome const outcome = run({"check", "disk.vmdk", "--sample", "100"});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.out.find("certainty"), std::string::npos) << outcome.out;
    for (char const* const wrong : {"0", "-1", "101", "half", ""})
        runBadly(2, {"check", "disk.vmdk", "--sample", wrong});
}

TEST_F(Digests, OfAnotherContentAreOutOfDateNeverWrong) {
    runWell({"import", "image", "disk.vmdk"});
    std::string const digests = readFile("disk.vmdk.digests");
    runWell({"import", "image", "disk.vmdk", "--force", "--compressed"});
    writeFile("disk.vmdk.digests", digests);
    Outcome const outcome = run({"check", "disk.vmdk"});
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.out, "");
    EXPECT_EQ(outcome.err, "kelm: warning: The digests of '" + path("disk.vmdk") +
                               "' are out of date, since it was changed after they were made. "
                               "Nothing was compared with them; 'kelm digest' makes new ones.\n");
    Outcome const demanding = run({"check", "disk.vmdk", "--digests"});
    EXPECT_EQ(demanding.status, 1);
    EXPECT_EQ(demanding.out, path("disk.vmdk.digests") +
                                 ": the digests are out of date: the disk was changed since they "
                                 "were made\n1 finding\n");
    runWell({"digest", "disk.vmdk"});
    EXPECT_EQ(runWell({"check", "disk.vmdk", "--digests"}), "");
}

TEST_F(Digests, StayTrueWhenADiskIsFlattened) {
    runWell({"import", "image", "full.vmdk"});
    std::string later = readFile("image");
    later[70000] ^= 1;
    writeFile("later", later);
    runWell({"import", "later", "mon.vmdk", "--parent", "full.vmdk", "--image-digest"});
    runWell({"flatten", "mon.vmdk"});
    EXPECT_EQ(runWell({"check", "mon.vmdk", "--digests"}), "");
    EXPECT_EQ(runWell({"digest", "mon.vmdk", "--print"}), sumOf("later"));
    damage("mon.vmdk");
    EXPECT_EQ(run({"check", "mon.vmdk"}).status, 1);
}

TEST_F(Digests, GoWithTheDisk) {
    runWell({"import", "image", "disk.vmdk"});
    std::filesystem::create_directory(path("folder"));
    runWell({"rename", "disk.vmdk", "folder/new.vmdk"});
    EXPECT_EQ(listFiles().count("disk.vmdk.digests"), 0U);
    EXPECT_EQ(runWell({"check", "folder/new.vmdk", "--digests"}), "");
    EXPECT_EQ(runWell({"delete", "folder/new.vmdk"}),
              path("folder/new.vmdk") + "\n" + path("folder/new.vmdk.digests") + "\n");
    EXPECT_TRUE(std::filesystem::is_empty(path("folder")));
}

TEST_F(Digests, ThatADeletedDiskLeftAreInNobodysWay) {
    runWell({"import", "image", "disk.vmdk"});
    std::filesystem::remove(path("disk.vmdk"));
    runWell({"import", "image", "disk.vmdk"});
    EXPECT_EQ(runWell({"check", "disk.vmdk", "--digests"}), "");
    std::filesystem::remove(path("disk.vmdk"));
    runWell({"create", "disk.vmdk", "--size", "8M"});
    EXPECT_EQ(listFiles().count("disk.vmdk.digests"), 0U);
    // What is no digest file is somebody's.
    std::filesystem::remove(path("disk.vmdk"));
    writeFile("disk.vmdk.digests", "precious");
    EXPECT_EQ(runBadly(3, {"import", "image", "disk.vmdk"}),
              "kelm: The file exists already. (uri: " + path("disk.vmdk.digests") + ")\n");
    EXPECT_EQ(readFile("disk.vmdk.digests"), "precious");
    EXPECT_EQ(listFiles().count("disk.vmdk"), 0U);
}

TEST_F(Digests, PrintWhatSha256sumPrints) {
    for (std::string const form : {"--compressed", "--on-demand"}) {
        for (bool const isKept : {false, true}) {
            SCOPED_TRACE(form + (isKept ? " kept" : ""));
            Arguments arguments{"import",          "image",   "disk.vmdk", "--force", "--encrypt",
                                "--rounds",        "1000",    form,        "--split", "8M",
                                "--password-file", "password"};
            if (isKept)
                arguments.push_back("--image-digest");
            runWell(arguments);
            EXPECT_EQ(runWell({"digest", "disk.vmdk", "--print", "--password-file", "password"}),
                      sumOf("image"));
            // Nobody can read it from the file without the password.
            std::string const sum = sumOf("image");
            std::string bytes;
            for (std::size_t at = 0; at < 64; at += 2)
                bytes += static_cast<char>(std::stoi(sum.substr(at, 2), nullptr, 16));
            EXPECT_EQ(readFile("disk.vmdk.digests").find(bytes), std::string::npos);
        }
    }
    EXPECT_EQ(
        runBadly(2, {"digest", "disk.vmdk", "--print", "--force", "--password-file", "password"}),
        "kelm: --print makes no digests; leave out --image-digest and --force.\n");
}

TEST_F(Digests, OfAnImageThatWasPaddedCoverThePadding) {
    Outcome const outcome = run(
        {"import", "-", "disk.vmdk", "--size", "9M", "--pad", "--image-digest"}, readFile("image"));
    ASSERT_EQ(outcome.status, 0) << outcome.err;
    std::string padded = readFile("image");
    padded.resize(std::size_t{9} << 20);
    writeFile("padded", padded);
    EXPECT_EQ(runWell({"digest", "disk.vmdk", "--print"}), sumOf("padded"));
    EXPECT_EQ(runWell({"check", "disk.vmdk", "--digests"}), "");
}

TEST_F(Digests, AreMadeByAnImportThatGoesOn) {
    {
        RunningTool tool(folder(),
                         {"import", "-", "disk.vmdk", "--size", std::to_string(kImageBytes)});
        tool.feed(readFile("image").substr(0, std::size_t{6} << 20));
        tool.signal(SIGKILL);
        tool.finish();
    }
    ASSERT_EQ(listFiles().count("disk.vmdk"), 1U);
    Outcome const outcome = run({"import", "-", "disk.vmdk", "--resume", "--image-digest", "--size",
                                 std::to_string(kImageBytes)},
                                readFile("image"));
    ASSERT_EQ(outcome.status, 0) << outcome.err;
    EXPECT_EQ(runWell({"check", "disk.vmdk", "--digests"}), "");
    EXPECT_EQ(runWell({"digest", "disk.vmdk", "--print"}), sumOf("image"));
}

TEST_F(Digests, TheSizeOfTheImageIsComparedToo) {
    runWell({"import", "image", "disk.vmdk"});
    std::string const disk = readFile("disk.vmdk");
    std::string const size = std::to_string(kImageBytes);
    std::size_t const at = disk.find("imageBytes = \"") + 14;
    std::string const recorded = disk.substr(at, 20);
    ASSERT_EQ(recorded, std::string(20 - size.size(), '0') + size);
    std::string shorter = std::to_string(kImageBytes - 1);
    shorter = std::string(20 - shorter.size(), '0') + shorter;
    patchFile("disk.vmdk", at, shorter);
    Outcome const outcome = run({"check", "disk.vmdk"});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_NE(outcome.out.find(": the image has " + std::to_string(kImageBytes - 1) +
                               " bytes by the descriptor, and " + size + " by the digests\n"),
              std::string::npos)
        << outcome.out;
}

} // namespace

} // namespace endtoend

#include "tests/endtoend/tool_fixture.h"

namespace endtoend {

namespace {

/// Incremental imports that are told what has changed.
class Changed : public ToolTest {
protected:
    Changed() {
        m_image = makeImage(kImageBytes, 51);
        writeFile("image", m_image);
        runWell({"import", "image", "full.vmdk"});
        m_image[5] ^= 1;
        m_image[3 * kGrain + 70] ^= 1;
        m_image[40 * kGrain] ^= 1;
        writeFile("later", m_image);
    }

    /// The list goes to standard input. What fails leaves nothing.
    Outcome import(std::string const& list, Arguments const& more = {}) const {
        return run(
            joined(
                {{"import", "later", "mon.vmdk", "--parent", "full.vmdk", "--changed", "-"}, more}),
            list);
    }

    void expectImported(std::string const& list, Arguments const& more = {}) const {
        Outcome const outcome = import(list, joined({{"--force"}, more}));
        EXPECT_EQ(outcome.status, 0) << outcome.err;
        EXPECT_EQ(outcome.err, "");
        EXPECT_EQ(runWell({"compare", "later", "mon.vmdk"}), "equal\n");
        EXPECT_EQ(runWell({"check", "mon.vmdk", "--digests", "--own"}), "");
    }

    void expectRefused(std::string const& list, std::string const& words) const {
        Outcome const outcome = import(list);
        EXPECT_EQ(outcome.status, 2) << outcome.err;
        EXPECT_EQ(outcome.err, "kelm: -, " + words + "\n");
        EXPECT_EQ(listFiles().count("mon.vmdk"), 0U);
        EXPECT_EQ(listFiles().count("mon.vmdk.digests"), 0U);
    }

    static constexpr std::size_t kGrain = 65536;
    static constexpr std::size_t kImageBytes = 130 * kGrain + 100;
    std::string m_image;
};

TEST_F(Changed, RangesAreTakenAsToolsPrintThem) {
    expectImported("0 512\n196608 4096\n2621440 1\n");
    expectImported("# offset length\r\n\n  2621440\t1 # late\n0 512\r\n196000 1000\n0 65536\n");
    expectImported("[{\"offset\":0,\"length\":65536,\"type\":\"data\"},\n"
                   " {\"offset\":196608,\"length\":65536,\"exists\":\"true\"},\n"
                   " {\"offset\":2621440,\"length\":10,\"zero\":false,\"other\":[]}]\n");
    expectImported("  [ {\"length\": 8519780, \"offset\": 0, \"exists\": false} ]");
}

TEST_F(Changed, OnlyTheRangesAreRead) {
    std::string const parent = readFile("image");
    Outcome const outcome = import("196608 1\n");
    ASSERT_EQ(outcome.status, 0) << outcome.err;
    std::string expected = parent;
    expected[3 * kGrain + 70] ^= 1;
    writeFile("expected", expected);
    EXPECT_EQ(runWell({"compare", "expected", "mon.vmdk"}), "equal\n");
    EXPECT_EQ(runWell({"check", "mon.vmdk", "--digests", "--own"}), "");
}

TEST_F(Changed, NothingMayHaveChanged) {
    for (std::string const list : {"", "\n# none\n", "[]", "17 0\n"}) {
        Outcome const outcome = import(list, {"--force"});
        ASSERT_EQ(outcome.status, 0) << outcome.err;
        EXPECT_EQ(runWell({"compare", "image", "mon.vmdk"}), "equal\n");
    }
}

TEST_F(Changed, TheDigestOfTheImageIsThatOfTheDisk) {
    expectImported("0 1\n196608 1\n2621440 1\n", {"--image-digest"});
    EXPECT_EQ(runWell({"digest", "mon.vmdk", "--print"}).substr(0, 64), [&] {
        runWell({"import", "later", "again.vmdk", "--image-digest"});
        return runWell({"digest", "again.vmdk", "--print"}).substr(0, 64);
    }());
}

TEST_F(Changed, WhatIsBehindTheParentIsRead) {
    std::string const longer = m_image + std::string(3 * kGrain, 'x');
    writeFile("later", longer);
    expectImported("0 1\n196608 1\n2621440 1\n");
    writeFile("later", m_image.substr(0, 60 * kGrain + 3));
    expectImported("0 1\n196608 1\n2621440 1\n");
}

TEST_F(Changed, ParentsNeedNoDigests) {
    runWell({"import", "image", "full.vmdk", "--force", "--no-digests"});
    expectImported("0 1\n196608 1\n2621440 1\n");
    expectImported("0 1\n196608 1\n2621440 1\n", {"--verify-changed", "100", "--compressed"});
}

TEST_F(Changed, AListThatMissesSomethingIsFoundOut) {
    for (std::string const parent : {"with", "without"}) {
        SCOPED_TRACE(parent + " digests");
        if (parent == "without")
            std::filesystem::remove(path("full.vmdk.digests"));
        expectImported("0 1\n196608 1\n2621440 1\n", {"--verify-changed", "100"});
        std::filesystem::remove(path("mon.vmdk"));
        std::filesystem::remove(path("mon.vmdk.digests"));
        Outcome const outcome = import("0 1\n2621440 1\n", {"--verify-changed", "100"});
        EXPECT_EQ(outcome.status, 3);
        EXPECT_EQ(outcome.err, "kelm: The image has changed where the list of changes has nothing. "
                               "(bytes: 196608-262143)\n");
        EXPECT_EQ(listFiles().count("mon.vmdk"), 0U);
    }
}

TEST_F(Changed, BadListsAreRefusedWithTheirLine) {
    std::string const noNumbers = "not an offset and a length in bytes";
    expectRefused("0 512\nhello\n", "line 2: " + noNumbers);
    expectRefused("0\n", "line 1: " + noNumbers);
    expectRefused("0 1 2\n", "line 1: " + noNumbers);
    expectRefused("0x10 1\n", "line 1: " + noNumbers);
    expectRefused("0 99999999999999999999\n", "line 1: " + noNumbers);
    expectRefused("\n-1 5\n", "line 2: a range has no negative numbers");
    expectRefused("0 1\n8519780 1\n", "line 2: the range from 8519780 on of 1 bytes does not lie "
                                      "in the image, which has 8519780");
    expectRefused("1 9223372036854775807\n",
                  "line 1: the range from 1 on of 9223372036854775807 bytes does not lie in the "
                  "image, which has 8519780");
    std::string const noEntry = "an entry has an \"offset\" and a \"length\" in bytes";
    expectRefused("[\n{\"offset\":0,\"length\":1},\n{]", "line 3: not valid JSON");
    expectRefused("[{\"offset\":0,\"length\":1},{\"offset\":1}]", "entry 2: " + noEntry);
    expectRefused("[{\"offset\":\"0\",\"length\":1}]", "entry 1: " + noEntry);
    expectRefused("[7]", "entry 1: " + noEntry);
    expectRefused("[{\"offset\":0,\"length\":18446744073709551615}]",
                  "entry 1: a range has no negative numbers");
    expectRefused("[{\"offset\":8519781,\"length\":0}]",
                  "entry 1: the range from 8519781 on of 0 bytes does not lie in the image, which "
                  "has 8519780");
}

TEST_F(Changed, GoesWithAParentAndAnImageThatIsNoPipe) {
    writeFile("list", "0 1\n");
    EXPECT_EQ(runBadly(2, {"import", "later", "mon.vmdk", "--changed", "list"}),
              "kelm: --changed goes with --parent, and not with --resume.\n");
    EXPECT_EQ(runBadly(2, {"import", "later", "mon.vmdk", "--changed", "list", "--resume"}),
              "kelm: --changed goes with --parent, and not with --resume.\n");
    EXPECT_EQ(runBadly(2, {"import", "later", "mon.vmdk", "--verify-changed", "5"}),
              "kelm: --verify-changed goes with --changed.\n");
    EXPECT_EQ(
        runBadly(2, {"import", "-", "mon.vmdk", "--parent", "full.vmdk", "--changed", "list"}),
        "kelm: --changed needs an image that can be read at any place: a file or a block "
        "device.\n");
    runBadly(8, {"import", "later", "mon.vmdk", "--parent", "full.vmdk", "--changed", "missing"});
    EXPECT_EQ(listFiles().count("mon.vmdk"), 0U);
}

} // namespace

} // namespace endtoend

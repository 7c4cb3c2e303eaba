#include <nlohmann/json.hpp>

#include "tests/endtoend/tool_fixture.h"

namespace endtoend {

namespace {

constexpr std::size_t kImageBytes = std::size_t{12} << 20;

struct Kind {
    char const* name;
    Arguments options;
    std::string createType;
};

class RoundTrip : public ToolTest, public ::testing::WithParamInterface<Kind> {};

INSTANTIATE_TEST_SUITE_P(
    Kinds, RoundTrip,
    ::testing::Values(Kind{"Plain", {}, "monolithicSparse"},
                      Kind{"Split", {"--split", "4M"}, "twoGbMaxExtentSparse"},
                      Kind{"OnDemand", {"--split", "4M", "--on-demand"}, "twoGbMaxExtentSparse"},
                      Kind{"Compressed", {"--compressed", "--level", "1"}, "streamOptimized"},
                      Kind{"CompressedSplit", {"--compressed", "--split", "6M"}, "streamOptimized"},
                      Kind{"Encrypted", {"--encrypt"}, "monolithicSparse"},
                      Kind{
                          "CompressedEncrypted", {"--compressed", "--encrypt"}, "streamOptimized"}),
    [](auto const& instance) { return std::string(instance.param.name); });

TEST_P(RoundTrip, ImageComesBackAsItWas) {
    Arguments const password{"--password-file", "password"};
    writeFile("password", "secret\n");
    std::string const image = makeImage(kImageBytes, 1);
    writeFile("image", image);

    runWell(joined({{"import", "image", "disk.vmdk"}, GetParam().options, password}));
    EXPECT_EQ(runWell(joined({{"check", "disk.vmdk"}, password})), "");
    EXPECT_EQ(runWell(joined({{"compare", "image", "disk.vmdk"}, password})), "equal\n");
    runWell(joined({{"export", "disk.vmdk", "restored"}, password}));
    EXPECT_TRUE(readFile("restored") == image);

    auto const info =
        nlohmann::json::parse(runWell(joined({{"info", "disk.vmdk", "--json"}, password})));
    EXPECT_EQ(info["kind"], GetParam().createType);
    EXPECT_EQ(info["sizeBytes"], kImageBytes);
    EXPECT_EQ(listFiles().count("disk.vmdk.lock"), 0u);
}

TEST_P(RoundTrip, ConvertsToEveryOtherKind) {
    Arguments const password{"--password-file", "password"};
    writeFile("password", "secret\n");
    std::string const image = makeImage(kImageBytes, 2);
    writeFile("image", image);
    runWell({"import", "image", "plain.vmdk"});
    runWell({"import", "image", "compressed.vmdk", "--compressed"});
    for (std::string const from : {"plain.vmdk", "compressed.vmdk"}) {
        runWell(joined({{"convert", from, "to-" + from}, GetParam().options, password}));
        EXPECT_EQ(runWell(joined({{"compare", "image", "to-" + from}, password})), "equal\n");
        EXPECT_EQ(runWell(joined({{"check", "to-" + from}, password})), "");
    }
}

using Pipes = ToolTest;

TEST_F(Pipes, ImageGoesThroughStandardInputAndOutput) {
    std::string const image = makeImage(kImageBytes, 3);
    Outcome const imported =
        run({"import", "-", "disk.vmdk", "--size", std::to_string(image.size())}, image);
    EXPECT_EQ(imported.status, 0) << imported.err;
    EXPECT_TRUE(runWell({"export", "disk.vmdk", "-"}) == image);
}

TEST_F(Pipes, ImageGoesThroughPipesThatHaveNames) {
    std::string const image = makeImage(kImageBytes, 16);
    Outcome const imported =
        run({"import", "/dev/stdin", "disk.vmdk", "--size", std::to_string(image.size())}, image);
    EXPECT_EQ(imported.status, 0) << imported.err;
    EXPECT_TRUE(runWell({"export", "disk.vmdk", "/dev/stdout"}) == image);
    EXPECT_EQ(runWell({"map", "disk.vmdk", "--svg", "/dev/stdout"}).rfind("<svg ", 0), 0u);
}

TEST_F(Pipes, TooMuchInputRemovesTheDisk) {
    Outcome const outcome =
        run({"import", "-", "disk.vmdk", "--size", "8M"}, makeImage(kImageBytes, 4));
    EXPECT_EQ(outcome.status, 3);
    EXPECT_EQ(outcome.err,
              "kelm: The image is larger than the disk. (imageSize: 8454144, diskSize: 8388608)\n");
    EXPECT_EQ(listFiles(), std::set<std::string>());
}

using Compare = ToolTest;

TEST_F(Compare, TellsTheFirstDifferenceAndTheCount) {
    std::string image = makeImage(kImageBytes, 5);
    writeFile("image", image);
    runWell({"import", "image", "disk.vmdk", "--compressed"});
    image[5000000] = static_cast<char>(image[5000000] ^ 1);
    image[9000000] = static_cast<char>(image[9000000] ^ 1);
    writeFile("image", image);
    Outcome const outcome = run({"compare", "disk.vmdk", "image"});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.out, "first difference at byte 5000000\n2 bytes differ\n");
}

using Info = ToolTest;

TEST_F(Info, TellsAboutADiskOfTwoTebibytes) {
    runWell(
        {"create", "disk.vmdk", "--size", "2T", "--split", "2G", "--on-demand", "--compressed"});
    std::string const info = runWell({"info", "disk.vmdk"});
    EXPECT_NE(info.find("size:         2.0 TiB (2199023255552 bytes)\n"), std::string::npos)
        << info;
    EXPECT_NE(info.find("kind:         streamOptimized, compressed\n"), std::string::npos) << info;
}

} // namespace

} // namespace endtoend

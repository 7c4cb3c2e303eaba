#include <nlohmann/json.hpp>

#include "tests/endtoend/tool_fixture.h"

namespace endtoend {

namespace round_trip_test {

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
                      Kind{"Encrypted", {"--encrypt", "--rounds", "1000"}, "monolithicSparse"},
                      Kind{"CompressedEncrypted",
                           {"--compressed", "--encrypt", "--rounds", "1000"},
                           "streamOptimized"}),
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

TEST_F(Pipes, InputThatEndsEarlyRemovesTheDisk) {
    for (std::size_t const bytes : {std::size_t{0}, std::size_t{5000000}}) {
        Outcome const outcome = run({"import", "-", "disk.vmdk", "--size", "8M"},
                                    makeImage(kImageBytes, 4).substr(0, bytes));
        EXPECT_EQ(outcome.status, 3);
        EXPECT_EQ(outcome.err, "kelm: The image ended early. (imageSize: " + std::to_string(bytes) +
                                   ", expectedSize: 8388608)\n");
        EXPECT_EQ(listFiles(), std::set<std::string>());
    }
}

TEST_F(Pipes, ChildOfADiskNeedsAsManyBytesAsItsParentStandsFor) {
    std::string const monday = makeImage((std::size_t{9} << 20) + 512, 5);
    writeFile("monday", monday);
    runWell({"import", "monday", "monday.vmdk"});
    Arguments const command{"import", "-", "tuesday.vmdk", "--parent", "monday.vmdk"};
    Outcome const nothing = run(command, "");
    EXPECT_EQ(nothing.status, 3);
    EXPECT_EQ(nothing.err, "kelm: The image ended early. (imageSize: 0, expectedSize: 9437696)\n");
    EXPECT_EQ(run(command, monday + "x").status, 3);
    EXPECT_EQ(listFiles().count("tuesday.vmdk"), 0U);
    EXPECT_EQ(run(command, monday).status, 0);
    EXPECT_TRUE(runWell({"export", "tuesday.vmdk", "-"}) == monday);
}

TEST_F(Pipes, ShorterInputIsTakenOnPurpose) {
    std::string const image = makeImage(5000001, 6);
    Outcome const outcome = run({"import", "-", "disk.vmdk", "--size", "9M", "--pad"}, image);
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    std::string padded = image;
    padded.resize(std::size_t{9} << 20, '\0');
    EXPECT_TRUE(runWell({"export", "disk.vmdk", "-"}) == padded);

    // Behind a shorter image, a child has what its parent has.
    Outcome const ofChild =
        run({"import", "-", "child.vmdk", "--parent", "disk.vmdk", "--pad"}, "new");
    EXPECT_EQ(ofChild.status, 0) << ofChild.err;
    EXPECT_TRUE(runWell({"export", "child.vmdk", "-"}) == "new" + padded.substr(3));
}

TEST_F(Pipes, ExportHasTheExactSizeOfTheImport) {
    std::string const image = makeImage((std::size_t{9} << 20) + 513, 7);
    writeFile("image", image);
    for (Arguments const& kind :
         {Arguments{}, Arguments{"--compressed"}, Arguments{"--split", "4M"},
          Arguments{"--split", "4M", "--on-demand"}}) {
        runWell(joined({{"import", "image", "disk.vmdk", "--force"}, kind}));
        EXPECT_TRUE(runWell({"export", "disk.vmdk", "-"}) == image);
        runWell({"convert", "disk.vmdk", "copy.vmdk", "--compressed", "--force"});
        EXPECT_TRUE(runWell({"export", "copy.vmdk", "-"}) == image);
        runWell({"child", "disk.vmdk", "child.vmdk", "--force"});
        EXPECT_TRUE(runWell({"export", "child.vmdk", "-"}) == image);
        runWell({"flatten", "child.vmdk"});
        EXPECT_TRUE(runWell({"export", "child.vmdk", "-"}) == image);
        EXPECT_EQ(runWell({"check", "child.vmdk"}), "");
        runWell({"convert", "disk.vmdk", "copy.vmdk", "--size", "12M", "--force"});
        EXPECT_EQ(runWell({"export", "copy.vmdk", "-"}).size(), std::size_t{12} << 20);
        EXPECT_EQ(runWell({"compare", "image", "copy.vmdk"}), "equal\n");
    }
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

TEST_F(Info, ShowsTheExactSizeOfTheImage) {
    writeFile("image", makeImage((std::size_t{9} << 20) + 512, 8));
    runWell({"import", "image", "disk.vmdk"});
    EXPECT_NE(runWell({"info", "disk.vmdk"}).find("\nimage size:   9.0 MiB (9437696 bytes)\n"),
              std::string::npos);
    auto const info = nlohmann::json::parse(runWell({"info", "disk.vmdk", "--json"}));
    EXPECT_EQ(info.value("imageBytes", 0), 9437696);
    EXPECT_EQ(info["sizeBytes"], 9502720);
    runWell({"create", "empty.vmdk", "--size", "9M"});
    EXPECT_FALSE(
        nlohmann::json::parse(runWell({"info", "empty.vmdk", "--json"})).contains("imageBytes"));
}

TEST_F(Info, TellsAboutADiskOfTwoTebibytes) {
    runWell({"create", "disk.vmdk", "--size", "2T", "--split", "2G", "--on-demand", "--compressed",
             "--allow-oversize"});
    std::string const info = runWell({"info", "disk.vmdk", "--allow-oversize"});
    EXPECT_NE(info.find("size:         2.0 TiB (2199023255552 bytes)\n"), std::string::npos)
        << info;
    EXPECT_NE(info.find("kind:         streamOptimized, compressed\n"), std::string::npos) << info;
}

} // namespace

} // namespace round_trip_test

} // namespace endtoend

// Several links made one, and children of any disk.

#include <nlohmann/json.hpp>

#include "tests/endtoend/tool_fixture.h"

namespace endtoend {

namespace merge_test {

namespace {

using nlohmann::json;

constexpr std::size_t kImageBytes = (std::size_t{12} << 20) + 1000;

struct Kind {
    char const* name;
    Arguments linkOptions;
    Arguments targetOptions;
};

std::vector<Kind> const kKinds{
    {"Plain", {}, {}},
    {"Compressed", {"--compressed"}, {"--compressed"}},
    {"PlainToCompressedSplit", {}, {"--compressed", "--split", "16M"}},
    {"CompressedToSplit", {"--compressed"}, {"--split", "4M"}},
    {"Encrypted",
     {"--encrypt", "--compressed", "--rounds", "1000"},
     {"--compressed", "--rounds", "1000"}},
};

class Merge : public ToolTest, public ::testing::WithParamInterface<Kind> {
protected:
    Merge() {
        writeFile("password", "secret\n");
        std::string image = makeImage(kImageBytes, 11);
        for (int day = 0; day < 4; ++day) {
            std::string const number = std::to_string(day);
            if (day > 0) {
                std::size_t const at = static_cast<std::size_t>(day) * 2000000;
                image.replace(at, 2500000,
                              makeImage(2500000, 20u + static_cast<unsigned int>(day)));
                image.replace(at + 500000, 400000, std::string(400000, '\0'));
            }
            writeFile("image" + number, image);
            Arguments command{"import",  "image" + number, "day" + number + ".vmdk",
                              "--label", "day " + number,  "--password-file",
                              "password"};
            if (day > 0)
                command =
                    joined({command, {"--parent", "day" + std::to_string(day - 1) + ".vmdk"}});
            Arguments options = GetParam().linkOptions;
            if (day > 0)
                std::erase(options, "--encrypt");
            runWell(joined({command, options}));
        }
    }

    void expectIs(std::string const& image, std::string const& disk) const {
        EXPECT_EQ("equal\n", runWell({"compare", image, disk, "--password-file", "password"}))
            << disk;
        EXPECT_EQ("", runWell({"check", disk, "--password-file", "password"}));
    }

    json infoOf(std::string const& disk) const {
        return json::parse(runWell({"info", disk, "--json", "--password-file", "password"}));
    }

    void runMerge(std::string const& first, std::string const& last, std::string const& to) const {
        runWell(joined(
            {{"merge", first, last, to, "--password-file", "password"}, GetParam().targetOptions}));
    }

    void expectHasDigests(std::string const& name) {
        EXPECT_EQ("",
                  runWell({"check", name, "--own", "--digests", "--password-file", "password"}));
    }
};

TEST_P(Merge, OfMiddleLinksReadsAsTheLast) {
    runMerge("day1.vmdk", "day2.vmdk", "week.vmdk");
    expectIs("image2", "week.vmdk");
    expectHasDigests("week.vmdk");
    json const info = infoOf("week.vmdk");
    EXPECT_EQ(path("day0.vmdk"), info["parents"][0]["file"]);
    EXPECT_EQ(1U, info["parents"].size());
    json const last = infoOf("day2.vmdk");
    for (char const* const key : {"time", "source", "label", "imageBytes"})
        EXPECT_EQ(last[key], info[key]) << key;
    // The way to a thinner chain.
    json const rebased = json::parse(runWell(
        {"rebase", "day3.vmdk", "--parent", "week.vmdk", "--json", "--password-file", "password"}));
    EXPECT_EQ(0, rebased["copiedBytes"]);
    runWell({"drop", "day2.vmdk"});
    runWell({"drop", "day1.vmdk"});
    for (char const* const day : {"0", "3"})
        expectIs("image" + std::string(day), "day" + std::string(day) + ".vmdk");
    expectIs("image2", "week.vmdk");
}

TEST_P(Merge, OfAllLinksStandsAlone) {
    runMerge("day0.vmdk", "day3.vmdk", "all.vmdk");
    expectIs("image3", "all.vmdk");
    expectHasDigests("all.vmdk");
    EXPECT_TRUE(infoOf("all.vmdk")["parents"].empty());
}

TEST_P(Merge, OfOneLinkIsItsCopy) {
    runMerge("day2.vmdk", "day2.vmdk", "copy.vmdk");
    expectIs("image2", "copy.vmdk");
    EXPECT_EQ(2U, infoOf("copy.vmdk")["parents"].size());
}

TEST_P(Merge, RefusesLinksOfNoChain) {
    std::set<std::string> const before = listFiles();
    EXPECT_EQ("kelm: day1.vmdk is no child of day2.vmdk, nor one of its children's.\n",
              runBadly(2, {"merge", "day2.vmdk", "day1.vmdk", "week.vmdk", "--password-file",
                           "password"}));
    EXPECT_EQ(before, listFiles());
}

TEST_P(Merge, ConvertsADiskToAChildOfAnyOther) {
    runWell({"import", "image1", "other.vmdk", "--compressed"});
    runWell(joined({{"convert", "day3.vmdk", "child.vmdk", "--parent", "other.vmdk",
                     "--password-file", "password"},
                    GetParam().targetOptions}));
    expectIs("image3", "child.vmdk");
    expectHasDigests("child.vmdk");
    json const info = infoOf("child.vmdk");
    EXPECT_EQ(path("other.vmdk"), info["parents"][0]["file"]);
    EXPECT_EQ(infoOf("day3.vmdk")["imageBytes"], info["imageBytes"]);
    // Two days differ in less than half of the disk.
    json const space = json::parse(
        runWell({"map", "child.vmdk", "--json", "--password-file", "password"}))["runs"];
    std::size_t ownBytes = 0;
    for (json const& each : space)
        ownBytes += each["place"] == "here" ? each["lengthBytes"].get<std::size_t>() : 0;
    EXPECT_GT(ownBytes, 0U);
    EXPECT_LT(ownBytes, kImageBytes / 2);
}

TEST_P(Merge, ConvertsToALargerChildOfALargerDisk) {
    writeFile("large", makeImage(std::size_t{20} << 20, 5));
    runWell({"import", "large", "large.vmdk"});
    runWell(joined({{"convert", "day3.vmdk", "child.vmdk", "--parent", "large.vmdk", "--size",
                     "16M", "--password-file", "password"},
                    GetParam().targetOptions}));
    std::string image = readFile("image3");
    image.resize(std::size_t{16} << 20, '\0');
    writeFile("grown", image);
    expectIs("grown", "child.vmdk");
}

using MergeWords = ToolTest;

TEST_F(MergeWords, TellOfAGrainThatHasRotted) {
    writeFile("image", makeImage(std::size_t{8} << 20, 1));
    writeFile("later", makeImage(std::size_t{8} << 20, 2));
    runWell({"import", "image", "full.vmdk"});
    runWell({"import", "later", "mon.vmdk", "--parent", "full.vmdk"});
    std::string const whole = readFile("mon.vmdk");
    std::size_t const place = whole.size() - 1000;
    patchFile("mon.vmdk", place, std::string(1, static_cast<char>(~whole[place])));
    std::set<std::string> const before = listFiles();
    for (Arguments const& command :
         {Arguments{"merge", "mon.vmdk", "mon.vmdk", "week.vmdk"},
          Arguments{"convert", "mon.vmdk", "week.vmdk"},
          Arguments{"convert", "mon.vmdk", "week.vmdk", "--parent", "full.vmdk", "--compressed"}}) {
        SCOPED_TRACE(command.front());
        std::string const error = runBadly(7, command);
        EXPECT_NE(error.find("The content of the grain differs from its digest."),
                  std::string::npos)
            << error;
        EXPECT_NE(error.find(path("mon.vmdk")), std::string::npos) << error;
        EXPECT_EQ(before, listFiles());
    }
}

INSTANTIATE_TEST_SUITE_P(Kinds, Merge, ::testing::ValuesIn(kKinds),
                         [](auto const& kind) { return std::string(kind.param.name); });

} // namespace

} // namespace merge_test

} // namespace endtoend

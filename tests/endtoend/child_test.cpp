#include <nlohmann/json.hpp>

#include "tests/endtoend/tool_fixture.h"

namespace endtoend {

namespace {

constexpr std::size_t kImageBytes = std::size_t{8} << 20;
constexpr std::size_t kGrainBytes = 65536;

class Child : public ToolTest, public ::testing::WithParamInterface<bool> {
protected:
    /// A parent, and a child that differs in grain 1 (other data) and grain 2 (zeros).
    void makeChain() {
        m_image = std::string(kImageBytes, '\0');
        m_image.replace(0, 4 * kGrainBytes, 4 * kGrainBytes, 'p');
        writeFile("monday", m_image);
        import({"import", "monday", "monday.vmdk"});
        m_image.replace(kGrainBytes, kGrainBytes, kGrainBytes, 'c');
        m_image.replace(2 * kGrainBytes, kGrainBytes, kGrainBytes, '\0');
        writeFile("tuesday", m_image);
        import({"import", "tuesday", "tuesday.vmdk", "--parent", "monday.vmdk"});
    }

    void import(Arguments const& arguments) const {
        runWell(joined({arguments, GetParam() ? Arguments{"--compressed"} : Arguments{}}));
    }

    std::string m_image;
};

INSTANTIATE_TEST_SUITE_P(Kinds, Child, ::testing::Bool(), [](auto const& instance) {
    return instance.param ? "Compressed" : "Plain";
});

TEST_P(Child, StoresOnlyWhatDiffers) {
    makeChain();
    auto const map = nlohmann::json::parse(runWell({"map", "tuesday.vmdk", "--json"}));
    auto const expected = nlohmann::json::parse(
        R"([{"startBytes":0,"lengthBytes":65536,"place":"parent"},
            {"startBytes":65536,"lengthBytes":131072,"place":"here"},
            {"startBytes":196608,"lengthBytes":65536,"place":"parent"},
            {"startBytes":262144,"lengthBytes":8126464,"place":"absent"}])");
    EXPECT_EQ(map["runs"], expected);
    EXPECT_EQ(runWell({"compare", "tuesday", "tuesday.vmdk"}), "equal\n");
    EXPECT_EQ(runWell({"check", "tuesday.vmdk"}), "");
}

TEST_P(Child, FlattenedStandsAlone) {
    makeChain();
    runWell({"flatten", "tuesday.vmdk"});
    std::filesystem::remove(path("monday.vmdk"));
    EXPECT_EQ(runWell({"compare", "tuesday", "tuesday.vmdk"}), "equal\n");
    EXPECT_EQ(runWell({"check", "tuesday.vmdk"}), "");
    EXPECT_EQ(runBadly(2, {"flatten", "tuesday.vmdk"}),
              "kelm: The disk has no parent: tuesday.vmdk\n");
}

TEST_P(Child, RebasedFindsItsParentAgain) {
    makeChain();
    std::filesystem::create_directory(path("moved"));
    std::filesystem::rename(path("monday.vmdk"), path("moved/monday.vmdk"));
    EXPECT_EQ(run({"compare", "tuesday", "tuesday.vmdk"}).status, 8);
    Outcome const checked = run({"check", "tuesday.vmdk"});
    EXPECT_EQ(checked.status, 1);
    EXPECT_NE(checked.out.find("the parent does not exist"), std::string::npos) << checked.out;

    std::string const error =
        runBadly(8, {"rebase", "tuesday.vmdk", "--parent", "moved/monday.vmdk"});
    EXPECT_EQ(error.rfind("kelm: The old parent of the disk cannot be read. (uri: " +
                              path("tuesday.vmdk") + ")",
                          0),
              0u)
        << error;
    EXPECT_NE(error.find(" If the new parent is the old one, and has only moved, --trust skips "
                         "the comparison.\n"),
              std::string::npos)
        << error;
    runWell({"rebase", "tuesday.vmdk", "--parent", "moved/monday.vmdk", "--trust"});
    EXPECT_EQ(runWell({"compare", "tuesday", "tuesday.vmdk"}), "equal\n");
}

TEST_P(Child, TrustsNoParentOfOtherContent) {
    makeChain();
    import({"import", "monday", "other.vmdk"});
    std::string const error =
        runBadly(3, {"rebase", "tuesday.vmdk", "--parent", "other.vmdk", "--trust"});
    EXPECT_EQ(error.rfind("kelm: The new parent is not what the child disk was made of. (", 0), 0u)
        << error;
    EXPECT_EQ(runWell({"compare", "tuesday", "tuesday.vmdk"}), "equal\n");

    runWell({"rebase", "tuesday.vmdk", "--parent", "other.vmdk", "--unsafe"});
    std::filesystem::remove(path("monday.vmdk"));
    EXPECT_EQ(runWell({"compare", "tuesday", "tuesday.vmdk"}), "equal\n");
}

TEST_P(Child, RebasedToOtherContentReadsAsBefore) {
    makeChain();
    runWell({"child", "tuesday.vmdk", "wednesday.vmdk"});
    writeFile("else", makeImage(std::size_t{8} << 20, 77));
    import({"import", "else", "else.vmdk"});
    nlohmann::json const result = nlohmann::json::parse(
        runWell({"rebase", "tuesday.vmdk", "--parent", "else.vmdk", "--json"}));
    EXPECT_EQ(result["parent"], path("else.vmdk"));
    EXPECT_GT(result["copiedBytes"], 0);
    std::filesystem::remove(path("monday.vmdk"));
    for (char const* const disk : {"tuesday.vmdk", "wednesday.vmdk"}) {
        EXPECT_EQ(runWell({"compare", "tuesday", disk}), "equal\n");
        EXPECT_EQ(runWell({"check", disk}), "");
    }
    runBadly(3, {"rebase", "tuesday.vmdk", "--parent", "wednesday.vmdk"});
}

TEST_P(Child, EmptyChildReadsAsItsParent) {
    makeChain();
    runWell({"child", "tuesday.vmdk", "wednesday.vmdk"});
    EXPECT_EQ(runWell({"compare", "tuesday", "wednesday.vmdk"}), "equal\n");
    auto const info = nlohmann::json::parse(runWell({"info", "wednesday.vmdk", "--json"}));
    EXPECT_EQ(info["compressed"], GetParam());
    ASSERT_EQ(info["parents"].size(), 2u);
    EXPECT_EQ(info["parents"][0]["file"], path("tuesday.vmdk"));
    EXPECT_EQ(info["parents"][1]["file"], path("monday.vmdk"));
}

TEST_P(Child, IsSaidToHaveItsPlaceInTheChain) {
    makeChain();
    runWell({"child", "tuesday.vmdk", "wednesday.vmdk"});
    EXPECT_NE(runWell({"info", "wednesday.vmdk"}).find("3 of a chain, which ends at 256\n"),
              std::string::npos);
    auto const info =
        nlohmann::json::parse(runWell({"info", "monday.vmdk", "--json", "--look", "."}));
    EXPECT_EQ(info["link"], 1);
    EXPECT_EQ(info["neededBy"], nlohmann::json({path("tuesday.vmdk"), path("wednesday.vmdk")}));
    EXPECT_NE(runWell({"info", "wednesday.vmdk", "--look", "."}).find("no disk that was found\n"),
              std::string::npos);
}

TEST_P(Child, IsDrawn) {
    makeChain();
    runWell({"map", "tuesday.vmdk", "--svg", "map.svg"});
    std::string const picture = readFile("map.svg");
    EXPECT_EQ(picture.rfind("<svg ", 0), 0u);
    for (char const* words : {"<title>tuesday.vmdk</title>", "data here, 128.0 KiB",
                              "in a parent, 128.0 KiB", "nothing, 7.8 MiB"})
        EXPECT_NE(picture.find(words), std::string::npos) << words;
    EXPECT_EQ(run({"map", "tuesday.vmdk", "--svg", "map.svg"}).status, 3);
}

} // namespace

} // namespace endtoend

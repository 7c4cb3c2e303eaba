// How much the program says to people: nothing but errors, what it always says, and all.

#include <regex>

#include "tests/endtoend/tool_fixture.h"

namespace endtoend {

namespace verbosity_test {

namespace {

class HowMuchIsSaid : public ToolTest {
protected:
    HowMuchIsSaid() {
        writeFile("image", makeImage(std::size_t{8} << 20, 63));
        runWell({"import", "image", "full.vmdk"});
    }

    /// What a command says to people on standard error.
    std::string wordsOf(Arguments const& arguments) const {
        ToolOutcome const outcome = run(arguments);
        EXPECT_EQ(outcome.status, 0) << outcome.err;
        return outcome.err + outcome.summary;
    }
};

TEST_F(HowMuchIsSaid, QuietSaysNothingButErrors) {
    std::filesystem::create_directory(path("full.vmdk.former"));
    EXPECT_NE(wordsOf({"info", "full.vmdk"}), "");
    for (Arguments const& command : {Arguments{"info", "full.vmdk"},
                                     {"compare", "image", "full.vmdk"},
                                     {"list", "."},
                                     {"copy", "full.vmdk", "copy.vmdk"},
                                     {"delete", "copy.vmdk"}}) {
        ToolOutcome const outcome = run(joined({command, {"--quiet"}}));
        EXPECT_EQ(outcome.status, 0) << command.front();
        EXPECT_EQ(outcome.out, "") << command.front();
        EXPECT_EQ(outcome.err + outcome.summary, "") << command.front();
    }
    EXPECT_EQ(runBadly(8, {"info", "none.vmdk", "--quiet"}),
              "kelm: The disk does not exist. (uri: " + path("none.vmdk") + ")\n");
    EXPECT_EQ(run({"export", "full.vmdk", "-", "--quiet"}).out, readFile("image"));
    EXPECT_EQ(run({"info", "full.vmdk", "--quiet", "--json"}).out.substr(0, 2), "{\n");
    runBadly(2, {"info", "full.vmdk", "--quiet", "--verbose"});
}

TEST_F(HowMuchIsSaid, QuietNamesWhatIsDamagedAsAnError) {
    runWell({"convert", "full.vmdk", "packed.vmdk", "--compressed"});
    patchFile("packed.vmdk", readFile("packed.vmdk").size() / 2, std::string(64, 'x'));
    Outcome const outcome = run({"export", "packed.vmdk", "out", "--salvage", "--quiet"});
    EXPECT_EQ(outcome.status, 7);
    EXPECT_EQ(outcome.out, "");
    EXPECT_NE(outcome.err.find("65536 bytes damaged\n"), std::string::npos) << outcome.err;
}

TEST_F(HowMuchIsSaid, LongCommandsEndWithASummary) {
    EXPECT_NE(run({"check", "full.vmdk"}).summary, "");
    EXPECT_NE(run({"digest", "full.vmdk", "--force"}).summary, "");
    EXPECT_NE(run({"compare", "image", "full.vmdk"}).summary, "");
    EXPECT_EQ(run({"info", "full.vmdk"}).summary, "");
    EXPECT_EQ(run({"check", "full.vmdk", "--json"}).summary, "");
    // Where something is found, too.
    writeFile("other", makeImage(std::size_t{8} << 20, 64));
    ToolOutcome const differing = run({"compare", "other", "full.vmdk"});
    EXPECT_EQ(differing.status, 1);
    EXPECT_TRUE(std::regex_match(differing.summary,
                                 std::regex("kelm: compare took [0-9.]+ s.*\nkelm: .*\n")))
        << differing.summary;
}

TEST_F(HowMuchIsSaid, VerboseSaysWhatTheWorkIsBasedOnAndWhatWasDone) {
    std::string const parent = path("full.vmdk");
    Arguments const import{"import",    "image",   "day.vmdk", "--parent",
                           "full.vmdk", "--force", "--verbose"};
    std::string const summary = "kelm: import took [0-9.]+ s, .*/s\n"
                                "kelm: read 8.0 MiB, stored 0 bytes, skipped 8.0 MiB that are "
                                "zeros or the parent's, 0 warnings\n";
    std::string const words = wordsOf(import);
    EXPECT_NE(words.find("kelm: the parent is " + parent + "\n"), std::string::npos) << words;
    EXPECT_NE(words.find("kelm: the image is compared with the digests of the parents, whose data "
                         "is not read\n"),
              std::string::npos)
        << words;
    EXPECT_TRUE(std::regex_search(words, std::regex(summary + "$"))) << words;

    std::filesystem::remove(path("full.vmdk.digests"));
    EXPECT_NE(wordsOf(import).find("compared with the data of the parents"), std::string::npos);
    EXPECT_NE(wordsOf({"export", "day.vmdk", "out", "--verbose"})
                  .find("kelm: " + path("day.vmdk") + " has the parent " + parent + "\n"),
              std::string::npos);
    std::string const exported = wordsOf({"export", "day.vmdk", "out2", "--verbose"});
    EXPECT_TRUE(std::regex_search(
        exported, std::regex("zeros or the parent's, punched [0-9.]+ [KMG]iB of zeros, left 0 "
                             "bytes, wrote 0 bytes, 0 warnings\n$")))
        << exported;
    std::string const checked = wordsOf({"check", "full.vmdk", "--verbose", "--json"});
    EXPECT_NE(checked.find("kelm: check took "), std::string::npos) << checked;
}

} // namespace

} // namespace verbosity_test

} // namespace endtoend

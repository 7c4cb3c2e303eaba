#include <cstdlib>

#include <nlohmann/json.hpp>

#include "tests/endtoend/tool_fixture.h"

namespace endtoend {

namespace {

class Passwords : public ToolTest {
protected:
    Passwords() {
        writeFile("right", "correct horse\n");
        writeFile("wrong", "incorrect horse\n");
        writeFile("empty", "");
        writeFile("image", makeImage(std::size_t{8} << 20, 6));
        runWell({"import", "image", "disk.vmdk", "--encrypt", "--password-file", "right"});
    }
};

TEST_F(Passwords, WrongOrMissingHasAStatusOfItsOwn) {
    for (std::string const command : {"info", "check", "map"}) {
        EXPECT_EQ(runBadly(4, {command, "disk.vmdk", "--password-file", "wrong"}),
                  "kelm: Specified VMDK encryption password is not correct. (uri: " +
                      path("disk.vmdk") + ")\n");
        runBadly(4, {command, "disk.vmdk", "--password-file", "no-such-file"});
        runBadly(4, {command, "disk.vmdk", "--password-env", "KELM_TEST_UNSET"});
        EXPECT_EQ(runBadly(4, {command, "disk.vmdk", "--password-file", "empty"}),
                  "kelm: The password is empty.\n");
        EXPECT_EQ(runBadly(4, {command, "disk.vmdk"}),
                  "kelm: There is no terminal to ask for the password on.\n");
    }
}

TEST_F(Passwords, ComeFromAVariableOrADescriptor) {
    ::setenv("KELM_TEST_PASSWORD", "correct horse", 1);
    runWell({"info", "disk.vmdk", "--password-env", "KELM_TEST_PASSWORD"});
    ::unsetenv("KELM_TEST_PASSWORD");
    Outcome const outcome = run({"info", "disk.vmdk", "--password-fd", "0"}, "correct horse\n");
    EXPECT_EQ(outcome.status, 0) << outcome.err;
}

TEST_F(Passwords, EachOfTwoDisksMayHaveItsOwn) {
    runWell({"convert", "disk.vmdk", "other.vmdk", "--encrypt", "--password-file", "wrong",
             "--from-password-file", "right"});
    EXPECT_EQ(runWell({"compare", "disk.vmdk", "other.vmdk", "--password-file", "wrong",
                       "--from-password-file", "right"}),
              "equal\n");
}

TEST_F(Passwords, NewDiskTakesAtLeastTheRecommendedRoundsAndItsChildNoDerivationOfItsOwn) {
    runWell({"child", "disk.vmdk", "child.vmdk", "--password-file", "right"});
    auto const derivationIn = [&](std::string const& name) {
        std::string const bytes = readFile(name);
        std::size_t const start = bytes.find("yxEncKeyDerivAlg=");
        return bytes.substr(start, bytes.find("yxEncEncKey=") - start);
    };
    std::string const own = derivationIn("disk.vmdk");
    std::string const prefix = "yxEncKeyDerivAlg=pkcs5-pbkdf2-hmac-sha1:";
    ASSERT_EQ(own.substr(0, prefix.size()), prefix);
    EXPECT_GE(std::atoi(own.c_str() + prefix.size()), 600000);
    EXPECT_EQ(derivationIn("child.vmdk"), own);
    runWell({"create", "few.vmdk", "--size", "8M", "--encrypt", "--password-file", "right",
             "--rounds", "1000"});
    EXPECT_NE(derivationIn("few.vmdk").find("sha1:1000\n"), std::string::npos);
    runWell({"child", "few.vmdk", "many.vmdk", "--password-file", "right"});
    EXPECT_NE(derivationIn("many.vmdk").substr(prefix.size()), derivationIn("few.vmdk"));
    EXPECT_GE(std::atoi(derivationIn("many.vmdk").c_str() + prefix.size()), 600000);
    runBadly(2, {"create", "none.vmdk", "--size", "8M", "--encrypt", "--password-file", "right",
                 "--rounds", "999"});
}

TEST_F(Passwords, AreChangedForADiskOrForItsChain) {
    writeFile("new", "battery staple\n");
    runWell({"child", "disk.vmdk", "child.vmdk", "--password-file", "right"});
    runWell({"child", "disk.vmdk", "other.vmdk", "--password-file", "right"});
    Outcome outcome = run({"password", "child.vmdk", "--rounds", "1000", "--password-file", "right",
                           "--new-password-file", "new"});
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.out, path("child.vmdk") + "\n");
    EXPECT_EQ(outcome.err, "kelm: warning: The parents keep their password; give it by "
                           "--parent-password-file, or change it too by --chain.\n");
    runBadly(4, {"export", "child.vmdk", "out", "--password-file", "new"});
    runWell({"export", "child.vmdk", "out", "--password-file", "new", "--parent-password-file",
             "right"});
    EXPECT_EQ(readFile("out"), readFile("image"));
    runWell({"check", "child.vmdk", "--password-file", "new", "--parent-password-file", "right"});
    outcome =
        run({"password", "child.vmdk", "--chain", "--rounds", "1000", "--json", "--password-file",
             "new", "--parent-password-file", "right", "--new-password-file", "new"});
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(nlohmann::json::parse(outcome.out)["changed"],
              (nlohmann::json{path("child.vmdk"), path("disk.vmdk")}));
    EXPECT_EQ(outcome.err, "kelm: warning: '" + path("other.vmdk") +
                               "' keeps its password, and needs --parent-password-file for its "
                               "parents now.\n");
    runWell({"check", "child.vmdk", "--password-file", "new"});
    runBadly(4, {"info", "disk.vmdk", "--password-file", "right"});
    runWell({"export", "other.vmdk", "out", "--force", "--password-file", "right",
             "--parent-password-file", "new"});
    EXPECT_EQ(readFile("out"), readFile("image"));
    EXPECT_EQ(runBadly(4, {"password", "disk.vmdk", "--password-file", "right",
                           "--new-password-file", "wrong"}),
              "kelm: Specified VMDK encryption password is not correct. (uri: " +
                  path("disk.vmdk") + ")\n");
}

TEST_F(Passwords, AreInNoFileOfTheDisk) {
    EXPECT_EQ(readFile("disk.vmdk").find("correct horse"), std::string::npos);
}

} // namespace

} // namespace endtoend

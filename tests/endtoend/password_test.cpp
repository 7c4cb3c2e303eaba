#include <cstdlib>

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

TEST_F(Passwords, AreInNoFileOfTheDisk) {
    EXPECT_EQ(readFile("disk.vmdk").find("correct horse"), std::string::npos);
}

} // namespace

} // namespace endtoend

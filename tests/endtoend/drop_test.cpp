// Taking disks out of chains, with kills on the way.

#include <random>

#include <nlohmann/json.hpp>

#include "tests/endtoend/tool_fixture.h"

namespace endtoend {

namespace drop_test {

namespace {

using nlohmann::json;

constexpr std::size_t kImageBytes = std::size_t{16} << 20;

struct Kind {
    char const* name;
    Arguments options;
};

std::vector<Kind> const kKinds{
    {"Plain", {}},
    {"Compressed", {"--compressed"}},
    {"Split", {"--split", "8M"}},
    {"EncryptedCompressed", {"--compressed", "--encrypt", "--rounds", "1000"}},
};

/// Three days and the first one: each the image of the one before with other data in a part.
class Drop : public ToolTest, public ::testing::WithParamInterface<Kind> {
protected:
    Drop() {
        writeFile("password", "secret\n");
        std::string image = makeImage(kImageBytes, 71);
        for (int day = 0; day < 4; ++day) {
            std::string const number = std::to_string(day);
            if (day > 0) {
                std::size_t const at = static_cast<std::size_t>(day) * (std::size_t{3} << 20);
                image.replace(at, std::size_t{4} << 20, makeImage(std::size_t{4} << 20, 80u + day));
                image.replace(at + (std::size_t{1} << 20), std::size_t{1} << 19,
                              std::string(std::size_t{1} << 19, '\0'));
            }
            writeFile("image" + number, image);
            Arguments command{"import", "image" + number, "day" + number + ".vmdk",
                              "--password-file", "password"};
            if (day > 0)
                command =
                    joined({command, {"--parent", "day" + std::to_string(day - 1) + ".vmdk"}});
            Arguments options = GetParam().options;
            if (day > 0)
                std::erase(options, "--encrypt");
            runWell(joined({command, options}));
        }
        std::filesystem::create_directory(path("spare"));
        for (std::string const& name : listFiles()) {
            if (name.ends_with(".vmdk"))
                std::filesystem::copy(path(name), path("spare/" + name));
        }
    }

    void restore() const {
        for (std::string const& name : listFiles()) {
            if (name.starts_with("day"))
                std::filesystem::remove(path(name));
        }
        std::filesystem::copy(path("spare"), folder());
    }

    Arguments drop(std::string const& name) const {
        return {"drop", name, "--password-file", "password", "--look", "."};
    }

    void expectIsImage(int day) const {
        std::string const number = std::to_string(day);
        EXPECT_EQ("equal\n", runWell({"compare", "image" + number, "day" + number + ".vmdk",
                                      "--password-file", "password"}))
            << day;
    }

    bool exists(int day) const {
        return std::filesystem::exists(path("day" + std::to_string(day) + ".vmdk"));
    }

    int drawUpTo(int limit) {
        return 1 + static_cast<int>(m_random() % static_cast<unsigned int>(limit));
    }

    std::mt19937 m_random{20261122};
};

TEST_P(Drop, OfEachDayKeepsTheOthers) {
    for (int gone = 0; gone < 4; ++gone) {
        SCOPED_TRACE(gone);
        restore();
        std::string const name = "day" + std::to_string(gone) + ".vmdk";
        json const result = json::parse(runWell(joined({drop(name), {"--json", "--verify"}})));
        EXPECT_EQ(path(name), result["files"][0]);
        json const children =
            gone == 3 ? json::array() : json({path("day" + std::to_string(gone + 1) + ".vmdk")});
        EXPECT_EQ(children, result["children"]);
        for (int day = 0; day < 4; ++day) {
            if (day == gone) {
                EXPECT_FALSE(exists(day));
                continue;
            }
            expectIsImage(day);
            EXPECT_EQ("", runWell({"check", "day" + std::to_string(day) + ".vmdk",
                                   "--password-file", "password"}));
        }
    }
}

TEST_P(Drop, KilledAtAnyMomentGoesOn) {
    restore();
    int const operations = countOperations(drop("day1.vmdk"));
    for (int round = 0; round < 4; ++round) {
        SCOPED_TRACE(round);
        restore();
        EXPECT_TRUE(runAndKillBehind(drawUpTo(operations), drop("day1.vmdk")));
        for (int attempt = 0; attempt < 2 && exists(1); ++attempt)
            runAndKillBehind(drawUpTo(operations), drop("day1.vmdk"));
        for (int day : {0, 1, 2, 3}) {
            if (!exists(day))
                continue;
            std::string const number = std::to_string(day);
            EXPECT_EQ("equal\n", run({"compare", "image" + number, "day" + number + ".vmdk",
                                      "--password-file", "password"})
                                     .out)
                << day;
        }
        run(drop("day1.vmdk"));
        EXPECT_FALSE(exists(1));
        for (int day : {0, 2, 3})
            expectIsImage(day);
        for (std::string const& name : listFiles())
            EXPECT_FALSE(name.starts_with("day1")) << name;
    }
}

INSTANTIATE_TEST_SUITE_P(Kinds, Drop, ::testing::ValuesIn(kKinds),
                         [](auto const& kind) { return std::string(kind.param.name); });

class DropWords : public ToolTest {};

TEST_F(DropWords, SayWhatHappened) {
    writeFile("image", makeImage(std::size_t{8} << 20, 1));
    writeFile("later", makeImage(std::size_t{8} << 20, 2));
    runWell({"import", "image", "full.vmdk"});
    runWell({"import", "later", "mon.vmdk", "--parent", "full.vmdk"});
    EXPECT_EQ("child: " + path("mon.vmdk") + "\n" + path("full.vmdk") + "\n" +
                  path("full.vmdk.digests") + "\n",
              runWell({"drop", "full.vmdk"}));
    EXPECT_EQ("kelm: The disk does not exist. (uri: " + path("full.vmdk") + ")\n",
              runBadly(8, {"drop", "full.vmdk"}));
    EXPECT_EQ("equal\n", runWell({"compare", "later", "mon.vmdk"}));
    // What the child got is in its digests.
    EXPECT_EQ("", runWell({"check", "mon.vmdk", "--digests"}));
}

TEST_F(DropWords, DoNotMakeDamageSound) {
    writeFile("image", makeImage(std::size_t{8} << 20, 1));
    writeFile("password", "secret\n");
    Arguments const password{"--password-file", "password"};
    for (Arguments const& encryption :
         {Arguments{}, joined({{"--encrypt", "--rounds", "1000"}, password})}) {
        SCOPED_TRACE(encryption.size());
        Arguments const key = encryption.empty() ? Arguments{} : password;
        runWell(joined({{"import", "image", "full.vmdk"}, encryption}));
        runWell(joined({{"child", "full.vmdk", "mon.vmdk"}, key}));
        runWell(joined({{"digest", "mon.vmdk"}, key}));
        // Nothing else tells of a plain grain that it has rotted.
        std::string const whole = readFile("full.vmdk");
        std::size_t const place = whole.size() - 1000;
        patchFile("full.vmdk", place, std::string(1, static_cast<char>(~whole[place])));
        Outcome const before = run(joined({{"check", "mon.vmdk"}, key}));
        EXPECT_EQ(before.status, 1);
        runWell(joined({{"drop", "full.vmdk"}, key}));
        Outcome const after = run(joined({{"check", "mon.vmdk"}, key}));
        EXPECT_EQ(after.status, 1);
        EXPECT_NE(after.out.find("its content differs from its digest"), std::string::npos)
            << after.out;
        runWell(joined({{"delete", "mon.vmdk"}, key}));
    }
}

TEST_F(DropWords, WarnOfDigestsThatCannotBeKept) {
    writeFile("image", makeImage(std::size_t{8} << 20, 1));
    writeFile("later", makeImage(std::size_t{8} << 20, 2));
    runWell({"import", "image", "full.vmdk"});
    runWell({"import", "later", "mon.vmdk", "--parent", "full.vmdk"});
    std::string digests = readFile("mon.vmdk.digests");
    digests[100] = static_cast<char>(~digests[100]);
    writeFile("mon.vmdk.digests", digests);
    Outcome const outcome = run({"drop", "full.vmdk"});
    EXPECT_EQ(0, outcome.status);
    EXPECT_NE(std::string::npos,
              outcome.err.find("Cannot read the digests of the disk, which has none from now on."))
        << outcome.err;
    EXPECT_EQ(0U, listFiles().count("mon.vmdk.digests"));
    EXPECT_EQ("equal\n", runWell({"compare", "later", "mon.vmdk"}));
}

TEST_F(DropWords, AskForAPassword) {
    writeFile("image", makeImage(std::size_t{8} << 20, 1));
    writeFile("password", "secret\n");
    runWell({"import", "image", "full.vmdk", "--encrypt", "--rounds", "1000", "--password-file",
             "password"});
    runWell({"child", "full.vmdk", "mon.vmdk", "--password-file", "password"});
    std::set<std::string> const before = listFiles();
    runBadly(4, {"drop", "full.vmdk"});
    EXPECT_EQ(before, listFiles());
    runWell({"drop", "full.vmdk", "--password-file", "password"});
    EXPECT_EQ("equal\n", runWell({"compare", "image", "mon.vmdk", "--password-file", "password"}));
}

} // namespace

} // namespace drop_test

} // namespace endtoend

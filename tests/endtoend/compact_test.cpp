// Taking dead space out of disks, with kills on the way.

#include <random>

#include <nlohmann/json.hpp>

#include "host/disk/safe_disk.h"
#include "host/store/file_names.h"
#include "tests/endtoend/tool_fixture.h"
#include "yx/native_file_system.h"

namespace endtoend {

namespace compact_test {

namespace {

using nlohmann::json;

constexpr std::size_t kImageBytes = std::size_t{16} << 20;
constexpr int kGrainBytes = 65536;

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

/// A full disk, of which half has been overwritten, and a child of it.
class Compact : public ToolTest, public ::testing::WithParamInterface<Kind> {
protected:
    Compact() {
        writeFile("password", "secret\n");
        writeFile("image", makeImage(kImageBytes, 71));
        runWell(
            joined({{"import", "image", "full.vmdk", "--no-digests", "--password-file", "password"},
                    GetParam().options}));
        overwrite("full.vmdk", 0);
        runWell({"export", "full.vmdk", "full.raw", "--password-file", "password"});
        Arguments child{"child", "full.vmdk", "day.vmdk", "--password-file", "password"};
        if (std::string(GetParam().name).starts_with("Encrypted"))
            child = joined({child, {"--rounds", "1000"}});
        runWell(child);
        overwrite("day.vmdk", 8);
        runWell({"export", "day.vmdk", "day.raw", "--password-file", "password"});
        std::filesystem::create_directory(path("spare"));
        for (std::string const& name : listFiles()) {
            if (name.ends_with(".vmdk"))
                std::filesystem::copy(path(name), path("spare/" + name));
        }
    }

    /// Data that compress otherwise than what is there, zeros, and what was there already.
    void overwrite(std::string const& name, int first) const {
        auto const files = yx::makeObject<yx::CNativeFileSystem>();
        kelm::host::SafeDisk disk(files.get(), kelm::host::uriFromArgument(path(name)),
                                  yx::IIOStream::ReadWrite, "secret");
        std::mt19937 random(static_cast<unsigned int>(first));
        std::vector<std::uint32_t> words(kGrainBytes / sizeof(std::uint32_t));
        for (int grain = first; grain < first + 100; ++grain) {
            std::fill(words.begin(), words.end(), 0U);
            if (grain % 3 != 0)
                std::generate(words.begin(), words.end(), std::ref(random));
            disk.write(__int64{grain} * kGrainBytes, words.data(), kGrainBytes);
        }
        disk.flush();
    }

    void restore() const {
        for (std::string const& name : listFiles()) {
            if (name.find(".vmdk") != std::string::npos)
                std::filesystem::remove(path(name));
        }
        std::filesystem::copy(path("spare"), folder());
    }

    static Arguments compact(std::string const& name) {
        return {"compact", name, "--password-file", "password"};
    }

    void expectReadAsBefore() const {
        for (std::string const name : {"full", "day"})
            EXPECT_EQ(
                "equal\n",
                run({"compare", name + ".raw", name + ".vmdk", "--password-file", "password"}).out)
                << name;
    }

    int drawUpTo(int limit) {
        return 1 + static_cast<int>(m_random() % static_cast<unsigned int>(limit));
    }

    std::mt19937 m_random{20261122};
};

TEST_P(Compact, KeepsTheContentOfTheDiskAndOfItsChild) {
    for (std::string const name : {"full.vmdk", "day.vmdk"}) {
        json const result = json::parse(runWell(joined({compact(name), {"--json"}})));
        __int64 won = 0;
        for (json const& file : result["files"]) {
            EXPECT_EQ(file["bytesAfter"], std::filesystem::file_size(std::string(file["file"])));
            won += file["bytesBefore"].get<__int64>() - file["bytesAfter"].get<__int64>();
        }
        EXPECT_EQ(won, result["bytesWon"]);
        // What the child holds was written once.
        EXPECT_EQ(name == "full.vmdk", won > 0) << name;
        expectReadAsBefore();
        EXPECT_EQ("", runWell({"check", name, "--password-file", "password"}));
        EXPECT_EQ("nothing to win\n", runWell(compact(name)));
    }
}

TEST_P(Compact, KilledAtAnyMomentGoesOn) {
    int const operations = countOperations(compact("full.vmdk"));
    for (int round = 0; round < 4; ++round) {
        SCOPED_TRACE(round);
        restore();
        std::set<std::string> const before = listFiles();
        EXPECT_TRUE(runAndKillBehind(drawUpTo(operations), compact("full.vmdk")));
        expectReadAsBefore();
        runAndKillBehind(drawUpTo(operations), compact("full.vmdk"));
        expectReadAsBefore();
        runWell(compact("full.vmdk"));
        expectReadAsBefore();
        EXPECT_EQ("nothing to win\n", runWell(compact("full.vmdk")));
        EXPECT_EQ(before, listFiles());
    }
}

INSTANTIATE_TEST_SUITE_P(Kinds, Compact, ::testing::ValuesIn(kKinds),
                         [](auto const& kind) { return std::string(kind.param.name); });

class CompactWords : public ToolTest {};

TEST_F(CompactWords, SayWhatWasWon) {
    writeFile("image", makeImage(std::size_t{8} << 20, 1));
    runWell({"import", "image", "full.vmdk"});
    EXPECT_EQ("nothing to win\n", runWell({"compact", "full.vmdk"}));
    std::string const whole = readFile("full.vmdk");
    writeFile("full.vmdk", whole + std::string(5000, 'x'));
    EXPECT_EQ(path("full.vmdk") + ": 5000 bytes less, " + std::to_string(whole.size()) +
                  " bytes now\n",
              runWell({"compact", "full.vmdk"}));
    EXPECT_EQ(whole, readFile("full.vmdk"));
    EXPECT_EQ("", runWell({"check", "full.vmdk"}));
    EXPECT_EQ("kelm: The disk does not exist. (uri: " + path("none.vmdk") + ")\n",
              runBadly(8, {"compact", "none.vmdk"}));
}

TEST_F(CompactWords, PrintJSON) {
    writeFile("image", makeImage(std::size_t{8} << 20, 1));
    runWell({"import", "image", "full.vmdk"});
    auto const size = std::filesystem::file_size(path("full.vmdk"));
    json const result = json::parse(runWell({"compact", "full.vmdk", "--json"}));
    EXPECT_EQ(0, result["bytesWon"]);
    EXPECT_EQ(
        json::array({{{"file", path("full.vmdk")}, {"bytesBefore", size}, {"bytesAfter", size}}}),
        result["files"]);
}

TEST_F(CompactWords, SayThatTablesLieAmongGrains) {
    runWell({"create", "full.vmdk", "--size", "8M"});
    // The header's word for where the grains begin.
    patchFile("full.vmdk", 64, std::string("\x16\0\0\0\0\0\0\0", 8));
    EXPECT_EQ(path("full.vmdk") + ": left as it is: its tables do not all lie before its grains\n",
              runWell({"compact", "full.vmdk"}));
    json const result = json::parse(runWell({"compact", "full.vmdk", "--json"}));
    EXPECT_EQ("its tables do not all lie before its grains", result["files"][0]["obstacle"]);
}

TEST_F(CompactWords, ExplainAFileThatAKillHasLeft) {
    writeFile("image", makeImage(std::size_t{8} << 20, 1));
    runWell({"import", "image", "full.vmdk", "--split", "8M", "--no-digests"});
    std::string const extent = "full-s00000.vmdk";
    writeFile(extent + ".kelm-part", readFile(extent));
    Outcome const outcome = run({"info", "full.vmdk"});
    EXPECT_EQ(0, outcome.status);
    EXPECT_EQ("kelm: warning: A file of the disk was to be replaced by a new one, which is not "
              "complete. 'kelm compact' goes on with that, or takes it away.\n",
              outcome.err);
    EXPECT_EQ("nothing to win\n", runWell({"compact", "full.vmdk"}));
    EXPECT_FALSE(listFiles().contains(extent + ".kelm-part"));
}

TEST_F(CompactWords, AskForAPassword) {
    writeFile("image", makeImage(std::size_t{8} << 20, 1));
    writeFile("password", "secret\n");
    runWell({"import", "image", "full.vmdk", "--encrypt", "--rounds", "1000", "--password-file",
             "password"});
    runBadly(4, {"compact", "full.vmdk"});
    EXPECT_EQ("nothing to win\n", runWell({"compact", "full.vmdk", "--password-file", "password"}));
}

} // namespace

} // namespace compact_test

} // namespace endtoend

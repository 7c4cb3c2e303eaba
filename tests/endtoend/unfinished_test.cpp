// A program that is killed while it fills a disk leaves one that nobody takes for a backup.

#include <algorithm>
#include <csignal>
#include <random>

#include <nlohmann/json.hpp>

#include "tests/endtoend/tool_fixture.h"
#include "tests/support/model_rounds.h"

namespace endtoend {

namespace unfinished_test {

namespace {

constexpr std::size_t kImageBytes = (std::size_t{8} << 20) + 512;

constexpr char kRefusal[] =
    "kelm: The disk is unfinished: it has not been filled to its end. (uri: ";
constexpr char kWayOut[] = ") Go on filling it with 'import --resume', or make it anew; "
                           "--unfinished reads it as it is.\n";

struct Kind {
    char const* name;
    Arguments options;
    Arguments password = {}; ///< what opens it
};

Arguments const kPassword{"--password-file", "password"};

std::vector<Kind> const kKinds{
    {"plain", {}},
    {"compressed", {"--compressed"}},
    {"split", {"--split", "4M"}},
    {"onDemand", {"--split", "4M", "--on-demand"}},
    {"child", {"--parent", "parent.vmdk"}},
    {"compressedChild", {"--compressed", "--parent", "parent.vmdk"}},
    {"encrypted", {"--encrypt", "--rounds", "1000", "--compressed"}, kPassword}};

bool isChild(Kind const& kind) {
    return std::count(kind.options.begin(), kind.options.end(), "--parent") > 0;
}

class Unfinished : public ToolTest {
protected:
    Unfinished() : m_image(makeImage(kImageBytes, 77)) {
        writeFile("image", m_image);
        writeFile("old", makeImage(kImageBytes, 78));
        writeFile("password", "secret\n");
        runWell({"import", "old", "parent.vmdk"});
    }

    std::string sizeText() const { return std::to_string(kImageBytes); }

    /// Imports from a pipe, and kills the program once it has been given so many bytes.
    void importAndKill(Kind const& kind, std::size_t bytes) {
        RunningTool tool(folder(), joined({{"import", "-", "disk.vmdk", "--size", sizeText()},
                                           kind.options,
                                           kind.password}));
        tool.feed(m_image.substr(0, bytes));
        tool.signal(SIGKILL);
        tool.finish();
    }

    /// Converts, and kills the program once it has written to the new disk so many times. Whether
    /// it was killed before its end.
    bool convertAndKill(Kind const& kind, int writes) {
        RunningTool tool(
            folder(),
            joined({{"convert", "parent.vmdk", "disk.vmdk"}, kind.options, kind.password}));
        waitForWrites(tool, "disk.vmdk", writes);
        tool.signal(SIGKILL);
        return tool.finish().status == -1;
    }

    /// A compressed disk that was killed has no proper end, of which the program warns.
    std::string runWithWarnings(Arguments const& arguments) {
        Outcome const outcome = run(arguments);
        EXPECT_EQ(outcome.status, 0) << outcome.err;
        return outcome.out;
    }

    void expectHolds(Kind const& kind, std::string const& image) {
        EXPECT_EQ(run(joined({{"check", "disk.vmdk"}, kind.password})).status, 0);
        runWell(joined({{"export", "disk.vmdk", "raw"}, kind.password}));
        EXPECT_TRUE(readFile("raw") == image);
        std::filesystem::remove(path("raw"));
    }

    void removeDisk() {
        for (std::string const& name : listFiles()) {
            if (name.starts_with("disk"))
                std::filesystem::remove(path(name));
        }
    }

    void expectRefused(Kind const& kind) {
        std::string const words = kRefusal + path("disk.vmdk") + kWayOut;
        for (Arguments const& command :
             {Arguments{"export", "disk.vmdk", "raw"}, Arguments{"compare", "disk.vmdk", "image"},
              Arguments{"map", "disk.vmdk"}, Arguments{"convert", "disk.vmdk", "new.vmdk"},
              Arguments{"child", "disk.vmdk", "new.vmdk"}, Arguments{"flatten", "disk.vmdk"},
              Arguments{"import", "image", "new.vmdk", "--parent", "disk.vmdk"}}) {
            Outcome const outcome = run(joined({command, kind.password}));
            EXPECT_EQ(outcome.status, 5) << command.front();
            EXPECT_TRUE(outcome.err.ends_with(words)) << outcome.err;
        }
        EXPECT_FALSE(std::filesystem::exists(path("raw")));
        EXPECT_FALSE(std::filesystem::exists(path("new.vmdk")));
    }

    /// How long the files of the disk are.
    std::uintmax_t diskBytes() const {
        std::uintmax_t bytes = 0;
        for (std::string const& name : listFiles()) {
            if (name.starts_with("disk") && name.ends_with(".vmdk"))
                bytes += std::filesystem::file_size(path(name));
        }
        return bytes;
    }

    __int64 deadBytes(Kind const& kind) {
        return nlohmann::json::parse(runWell(joined(
            {{"info", "disk.vmdk", "--space", "--json"}, kind.password})))["space"]["deadBytes"];
    }

    std::string m_image;
};

TEST_F(Unfinished, KilledImportIsRefusedOnEveryRoad) {
    for (Kind const& kind : kKinds) {
        SCOPED_TRACE(kind.name);
        importAndKill(kind, std::size_t{3} << 20);
        expectRefused(kind);
        Outcome const checked = run(joined({{"check", "disk.vmdk"}, kind.password}));
        EXPECT_EQ(checked.status, 1);
        EXPECT_NE(checked.out.find(path("disk.vmdk") +
                                   ": the disk is unfinished: it has not been filled to its end\n"),
                  std::string::npos)
            << checked.out;
        Arguments const info = joined({{"info", "disk.vmdk"}, kind.password});
        EXPECT_NE(runWithWarnings(info).find("unfinished"), std::string::npos);
        EXPECT_NE(runWithWarnings(joined({info, {"--json"}})).find("\"unfinished\": true"),
                  std::string::npos);
        runWithWarnings(joined({{"export", "disk.vmdk", "raw", "--unfinished"}, kind.password}));
        std::filesystem::remove(path("raw"));
        removeDisk();
    }
}

TEST_F(Unfinished, IsResumedToTheSameContent) {
    std::mt19937 random(5);
    unsigned int const kills = 2 * test_support::modelRounds();
    for (Kind const& kind : kKinds) {
        SCOPED_TRACE(kind.name);
        for (unsigned int i = 0; i < kills; ++i) {
            std::size_t const bytes = random() % kImageBytes;
            SCOPED_TRACE(bytes);
            importAndKill(kind, bytes);
            Outcome const exported = run(joined({{"export", "disk.vmdk", "raw"}, kind.password}));
            EXPECT_NE(exported.status, 0);
            EXPECT_NE(run(joined({{"check", "disk.vmdk"}, kind.password})).status, 0);
            // Killed before it was a disk at all, it can only be made anew.
            bool const isDisk = exported.status == 5;
            runWithWarnings(
                joined({{"import", "image", "disk.vmdk"},
                        isDisk ? Arguments{"--resume"} : joined({{"--force"}, kind.options}),
                        kind.password}));
            expectHolds(kind, m_image);
            removeDisk();
        }
    }
}

TEST_F(Unfinished, IsResumedWithoutDeadSpaceHoweverOftenItWasKilled) {
    std::mt19937 random(7);
    constexpr int kMaxWrites = 60;
    int kills = 0;
    for (Kind const& kind : kKinds) {
        SCOPED_TRACE(kind.name);
        runWell(joined({{"import", "image", "disk.vmdk"}, kind.options, kind.password}));
        std::uintmax_t const wholeBytes = diskBytes();
        __int64 const wholeDeadBytes = deadBytes(kind);
        removeDisk();
        importAndKill(kind, std::size_t{6} << 20);
        for (int attempt = 0; attempt < 3; ++attempt) {
            RunningTool tool(folder(),
                             joined({{"import", "image", "disk.vmdk", "--resume"}, kind.password}));
            waitForWrites(tool, "disk.vmdk", static_cast<int>(random() % kMaxWrites));
            tool.signal(SIGKILL);
            kills += tool.finish().status == -1 ? 1 : 0;
        }
        Outcome const resumed =
            run(joined({{"import", "image", "disk.vmdk", "--resume"}, kind.password}));
        if (resumed.status != 0) {
            EXPECT_TRUE(
                resumed.err.ends_with("kelm: The disk is complete; there is nothing to resume.\n"))
                << resumed.err;
        }
        EXPECT_EQ(deadBytes(kind), wholeDeadBytes);
        EXPECT_EQ(diskBytes(), wholeBytes);
        expectHolds(kind, m_image);
        removeDisk();
    }
    EXPECT_GT(kills, 0);
}

TEST_F(Unfinished, KilledConversionIsNeverTakenForAWholeOne) {
    std::mt19937 random(6);
    constexpr int kMaxWrites = 60;
    std::string const image = readFile("old");
    unsigned int const kills = 2 * test_support::modelRounds();
    for (Kind const& kind : kKinds) {
        if (isChild(kind))
            continue;
        SCOPED_TRACE(kind.name);
        for (unsigned int i = 0; i < kills; ++i) {
            int const writes = static_cast<int>(random() % kMaxWrites);
            SCOPED_TRACE(writes);
            bool const wasKilled = convertAndKill(kind, writes);
            Outcome const exported = run(joined({{"export", "disk.vmdk", "raw"}, kind.password}));
            // The kill may have come when all was done.
            if (exported.status == 0) {
                EXPECT_TRUE(readFile("raw") == image) << wasKilled;
                std::filesystem::remove(path("raw"));
            }
            runWithWarnings(joined(
                {{"convert", "parent.vmdk", "disk.vmdk", "--force"}, kind.options, kind.password}));
            expectHolds(kind, image);
            removeDisk();
        }
    }
}

TEST_F(Unfinished, OtherImagesAreNotMixedIntoIt) {
    runWell({"import", "image", "disk.vmdk"});
    std::size_t const state = readFile("disk.vmdk").find("complete  ");
    ASSERT_NE(state, std::string::npos);
    patchFile("disk.vmdk", state, "unfinished");
    EXPECT_EQ(run({"export", "disk.vmdk", "-"}).status, 5);
    EXPECT_EQ(runBadly(2, {"import", "old", "disk.vmdk", "--resume"}),
              "kelm: The disk was being made of another image: " + path("image") + "\n");
    writeFile("image", m_image + "x");
    EXPECT_EQ(runBadly(2, {"import", "image", "disk.vmdk", "--resume"}),
              "kelm: The disk was being made for 8389120 bytes, not for 8389121.\n");
    writeFile("image", m_image);
    EXPECT_EQ(runBadly(2, {"import", "image", "disk.vmdk", "--resume", "--parent", "parent.vmdk"}),
              "kelm: The disk was being made without this parent.\n");
    EXPECT_EQ(runBadly(2, {"import", "image", "disk.vmdk", "--resume", "--compressed"}),
              "kelm: A disk is resumed as it is; leave out --compressed, --encrypt, --on-demand, "
              "--split and --force.\n");
    runWell({"import", "image", "disk.vmdk", "--resume"});
    EXPECT_EQ(runWell({"compare", "image", "disk.vmdk"}), "equal\n");
    EXPECT_EQ(runBadly(2, {"import", "image", "disk.vmdk", "--resume"}),
              "kelm: The disk is complete; there is nothing to resume.\n");
}

} // namespace

} // namespace unfinished_test

} // namespace endtoend

// Retention by rules, with kills on the way.

#include <random>

#include <nlohmann/json.hpp>

#include "host/disk/disk_record.h"
#include "host/disk/safe_disk.h"
#include "host/store/file_names.h"
#include "tests/endtoend/tool_fixture.h"
#include "yx/native_file_system.h"

namespace endtoend {

namespace prune_test {

namespace {

using nlohmann::json;

constexpr std::size_t kImageBytes = std::size_t{8} << 20;

/// Ten days in a row, each the child of the one before, from Thursday, 1 May 2031, on.
class Prune : public ToolTest {
protected:
    static constexpr int kDays = 10;

    Prune() {
        std::string image = makeImage(kImageBytes, 31);
        for (int day = 1; day <= kDays; ++day) {
            std::size_t const at = static_cast<std::size_t>(day) * 600000;
            image.replace(at, 700000, makeImage(700000, 40u + static_cast<unsigned int>(day)));
            image.replace(at + 200000, 100000, std::string(100000, '\0'));
            writeFile("image" + std::to_string(day), image);
            Arguments command{"import", "image" + std::to_string(day), nameOf(day)};
            if (day > 1)
                command = joined({command, {"--parent", nameOf(day - 1)}});
            if (day % 3 == 0)
                command = joined({command, {"--compressed"}});
            runWell(command);
            setRecord(nameOf(day), day);
        }
        std::filesystem::create_directory(path("../spare"));
        for (int day = 1; day <= kDays; ++day)
            std::filesystem::copy(path(nameOf(day)), path("../spare/" + nameOf(day)));
    }

    ~Prune() override { std::filesystem::remove_all(path("../spare")); }

    static std::string nameOf(int day) { return "day" + std::to_string(day) + ".vmdk"; }

    /// As if it had been imported then.
    void setRecord(std::string const& name, int day) const {
        auto const files = yx::makeObject<yx::CNativeFileSystem>();
        kelm::host::SafeDisk disk(files.get(), kelm::host::uriFromArgument(path(name)),
                                  yx::IIOStream::ReadWrite, "");
        kelm::host::DiskRecord record(*disk.getDisk().getDescriptor());
        record.setSource("/dev/sdb");
        std::string const number = std::to_string(day);
        record.setTime("2031-05-" + std::string(2 - number.size(), '0') + number + "T02:00:00Z");
        disk.storeDescriptor();
    }

    void restore() const {
        for (std::string const& name : listFiles()) {
            if (name.starts_with("day"))
                std::filesystem::remove(path(name));
        }
        std::filesystem::copy(path("../spare"), folder());
    }

    bool exists(int day) const { return std::filesystem::exists(path(nameOf(day))); }

    std::vector<int> days() const {
        std::vector<int> found;
        for (int day = 1; day <= kDays; ++day) {
            if (exists(day))
                found.push_back(day);
        }
        return found;
    }

    /// Each day that is there is what it was.
    void expectDaysAreRight() const {
        for (int day : days()) {
            EXPECT_EQ("equal\n", run({"compare", "image" + std::to_string(day), nameOf(day)}).out)
                << day;
        }
    }

    Arguments prune() const {
        return {"prune", ".", "--keep-last", "2", "--keep-weekly", "2", "--keep-monthly", "1"};
    }

    std::mt19937 m_random{20261122};
};

TEST_F(Prune, KeepsWhatTheRulesKeep) {
    std::string const where = path("");
    EXPECT_EQ(
        "drop  2031-05-01T02:00:00Z  " + where + "day1.vmdk\n" + "drop  2031-05-02T02:00:00Z  " +
            where + "day2.vmdk\n" + "drop  2031-05-03T02:00:00Z  " + where + "day3.vmdk\n" +
            "keep  2031-05-04T02:00:00Z  " + where + "day4.vmdk  (week 2)\n" +
            "drop  2031-05-05T02:00:00Z  " + where + "day5.vmdk\n" +
            "drop  2031-05-06T02:00:00Z  " + where + "day6.vmdk\n" +
            "drop  2031-05-07T02:00:00Z  " + where + "day7.vmdk\n" +
            "drop  2031-05-08T02:00:00Z  " + where + "day8.vmdk\n" +
            "keep  2031-05-09T02:00:00Z  " + where + "day9.vmdk  (last 2)\n" +
            "keep  2031-05-10T02:00:00Z  " + where + "day10.vmdk  (last 1, week 1, month 1)\n",
        runWell(joined({prune(), {"--dry-run"}})));
    EXPECT_EQ(static_cast<std::size_t>(kDays), days().size());
    json const result = json::parse(runWell(joined({prune(), {"--json"}})));
    EXPECT_EQ(true, result["done"]);
    EXPECT_EQ(json({{"file", path("day4.vmdk")},
                    {"time", "2031-05-04T02:00:00Z"},
                    {"keep", true},
                    {"reasons", {"week 2"}}}),
              result["disks"][3]);
    EXPECT_EQ((std::vector<int>{4, 9, 10}), days());
    expectDaysAreRight();
    // Nothing is left to do.
    json const again = json::parse(runWell(joined({prune(), {"--json"}})));
    EXPECT_EQ(3U, again["disks"].size());
    EXPECT_EQ((std::vector<int>{4, 9, 10}), days());
}

TEST_F(Prune, KilledAtAnyMomentGoesOn) {
    auto const operations = static_cast<unsigned int>(countOperations(prune()));
    for (int round = 0; round < 2; ++round) {
        SCOPED_TRACE(round);
        restore();
        for (int attempt = 0; attempt < 4; ++attempt) {
            // In which order it comes upon the disks may make a difference of a few.
            unsigned int const limit = attempt == 0 ? operations / 2 : operations;
            bool const isKilled =
                runAndKillBehind(1 + static_cast<int>(m_random() % limit), prune());
            EXPECT_TRUE(isKilled || attempt > 0);
            expectDaysAreRight();
            for (int day : {4, 9, 10})
                EXPECT_TRUE(exists(day)) << day;
        }
        Outcome const end = run(prune());
        EXPECT_EQ(0, end.status) << end.err;
        EXPECT_EQ((std::vector<int>{4, 9, 10}), days());
        expectDaysAreRight();
        for (std::string const& name : listFiles())
            EXPECT_TRUE(name.starts_with("image") || name.ends_with(".vmdk")) << name;
    }
}

TEST_F(Prune, JudgesOnlyTheLabelThatIsNamed) {
    runWell({"import", "image1", "kept.vmdk", "--label", "for ever"});
    runWell({"prune", ".", "--keep-last", "1", "--label", "for ever"});
    EXPECT_EQ(static_cast<std::size_t>(kDays), days().size());
    EXPECT_NE(runWell({"prune", ".", "--keep-last", "1", "--label", "for ever", "--dry-run"})
                  .find("day1.vmdk  (another label)\n"),
              std::string::npos);
}

TEST_F(Prune, KeepsWhatIsUnfinishedAndItsParent) {
    RunningTool writer(folder(),
                       {"import", "-", "new.vmdk", "--size", "8M", "--parent", "day3.vmdk"});
    writer.feed(std::string(std::size_t{1} << 20, 'x'));
    writer.signal(SIGKILL);
    writer.finish();
    std::string const plan = runWell({"prune", ".", "--keep-last", "1"});
    EXPECT_NE(plan.find("day3.vmdk  (its child is unfinished)\n"), std::string::npos) << plan;
    EXPECT_NE(plan.find("new.vmdk  (unfinished)\n"), std::string::npos) << plan;
    EXPECT_EQ((std::vector<int>{3, 10}), days());
    expectDaysAreRight();
}

TEST_F(Prune, TakesLockFilesOfDisksThatAreGone) {
    writeFile("gone.vmdk.lock", "");
    runWell({"prune", ".", "--keep-last", "10", "--dry-run"});
    EXPECT_EQ(1U, listFiles().count("gone.vmdk.lock"));
    runWell({"prune", ".", "--keep-last", "10"});
    EXPECT_EQ(0U, listFiles().count("gone.vmdk.lock"));
    EXPECT_EQ(static_cast<std::size_t>(kDays), days().size());
}

TEST_F(Prune, WantsARule) {
    EXPECT_EQ("kelm: Say what is to be kept, such as --keep-daily 7.\n",
              runBadly(2, {"prune", "."}));
    EXPECT_EQ("kelm: Say what is to be kept, such as --keep-daily 7.\n",
              runBadly(2, {"prune", ".", "--keep-daily", "0"}));
    EXPECT_EQ(static_cast<std::size_t>(kDays), days().size());
}

} // namespace

} // namespace prune_test

} // namespace endtoend

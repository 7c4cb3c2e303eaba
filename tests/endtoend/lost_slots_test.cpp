// Chains whose compressed disks have lost the sizes of their slots, as a power cut leaves them
// between the flush of the grain tables and that of the sizes: every command works on them, without
// one that has opened them for writing before.

#include <regex>

#include "host/store/file_names.h"
#include "tests/endtoend/tool_fixture.h"
#include "tests/support/slot_sizes.h"
#include "yx/native_file_system.h"

namespace endtoend {

namespace lost_slots_test {

namespace {

constexpr std::size_t kImageBytes = std::size_t{2} << 20;
constexpr int kDays = 3;

/// Three days, the newest of which is the child of the one before.
class LostSlots : public ToolTest {
protected:
    LostSlots() {
        std::string image = makeImage(kImageBytes, 5);
        for (int day = 0; day < kDays; ++day) {
            image.replace(static_cast<std::size_t>(day) * 500000, 400000,
                          makeImage(400000, 50u + static_cast<unsigned int>(day)));
            m_images.push_back(image);
            writeFile(imageName(day), image);
            Arguments command{"import", imageName(day), diskName(day), "--compressed"};
            if (day > 0)
                command = joined({command, {"--parent", diskName(day - 1)}});
            runWell(command);
        }
        for (int day = 0; day < kDays; ++day)
            m_disks.push_back(readFile(diskName(day)));
    }

    static std::string imageName(int day) { return "image" + std::to_string(day); }
    static std::string diskName(int day) { return "day" + std::to_string(day) + ".vmdk"; }

    /// All disks as they were made, but without the sizes of their slots, and nothing else.
    void loseSlots() {
        for (std::string const& name : listFiles()) {
            if (!name.starts_with("image"))
                std::filesystem::remove(path(name));
        }
        for (int day = 0; day < kDays; ++day) {
            writeFile(diskName(day), m_disks[static_cast<std::size_t>(day)]);
            EXPECT_LT(5, test_support::loseSlotSizes(
                             m_files.get(), kelm::host::uriFromArgument(path(diskName(day)))));
        }
    }

    void expectHolds(std::string const& disk, int day) {
        Outcome const outcome = run({"export", disk, "-"});
        EXPECT_EQ(outcome.status, 0) << disk << ": " << outcome.err;
        EXPECT_EQ(outcome.err, "") << disk;
        EXPECT_TRUE(outcome.out == m_images[static_cast<std::size_t>(day)]) << disk;
    }

    /// Runs the command on the chain and reads what it leaves: disks by their days.
    void expectLeaves(Arguments const& command,
                      std::vector<std::pair<std::string, int>> const& disks) {
        SCOPED_TRACE(testing::PrintToString(command));
        loseSlots();
        Outcome const outcome = run(command);
        EXPECT_EQ(outcome.status, 0) << outcome.out << outcome.err;
        for (auto const& [disk, day] : disks)
            expectHolds(disk, day);
    }

    std::vector<std::string> m_images;
    std::vector<std::string> m_disks;

private:
    yx::P<yx::CNativeFileSystem> m_files = yx::makeObject<yx::CNativeFileSystem>();
};

/// An output without the line that says how long the command took.
std::string withoutTime(std::string const& output) {
    return std::regex_replace(output, std::regex("\n  \"seconds\": [^\n]*"), "");
}

TEST_F(LostSlots, AreNoHindranceToReaders) {
    std::vector<Arguments> const commands{
        {"compare", "day2.vmdk", "image2"},
        {"compare", "day1.vmdk", "day2.vmdk"},
        {"map", "day2.vmdk"},
        {"info", "day2.vmdk", "--json"},
        {"list", ".", "--json"},
    };
    std::vector<Outcome> before;
    for (Arguments const& command : commands)
        before.push_back(run(command));
    EXPECT_EQ(before[0].out, "equal\n");
    loseSlots();
    for (int day = 0; day < kDays; ++day)
        expectHolds(diskName(day), day);
    for (std::size_t i = 0; i < commands.size(); ++i) {
        SCOPED_TRACE(testing::PrintToString(commands[i]));
        Outcome const after = run(commands[i]);
        EXPECT_EQ(after.status, before[i].status);
        EXPECT_EQ(withoutTime(after.out), withoutTime(before[i].out));
        EXPECT_EQ(after.err, before[i].err);
    }
    EXPECT_EQ(run({"export", "day2.vmdk", "-", "--salvage"}).out, m_images[2]);
    // None of them has changed a file.
    for (int day = 0; day < kDays; ++day)
        EXPECT_FALSE(readFile(diskName(day)) == m_disks[static_cast<std::size_t>(day)]);
}

TEST_F(LostSlots, AreNoHindranceToWhatMakesOtherDisks) {
    std::pair<std::string, int> const newest{"day2.vmdk", 2};
    expectLeaves({"convert", "day2.vmdk", "new.vmdk"}, {{"new.vmdk", 2}, newest});
    expectLeaves({"convert", "day2.vmdk", "new.vmdk", "--compressed", "--no-verify"},
                 {{"new.vmdk", 2}, newest});
    expectLeaves({"convert", "day0.vmdk", "new.vmdk", "--parent", "day2.vmdk"},
                 {{"new.vmdk", 0}, newest});
    expectLeaves({"import", "image1", "new.vmdk", "--parent", "day2.vmdk"},
                 {{"new.vmdk", 1}, newest});
    expectLeaves({"merge", "day1.vmdk", "day2.vmdk", "new.vmdk", "--compressed"},
                 {{"new.vmdk", 2}, newest});
    expectLeaves({"child", "day2.vmdk", "new.vmdk"}, {{"new.vmdk", 2}, newest});
    expectLeaves({"copy", "day2.vmdk", "new.vmdk"}, {{"new.vmdk", 2}, newest});
    expectLeaves({"digest", "day2.vmdk", "--force"}, {newest});
}

TEST_F(LostSlots, AreNoHindranceToWhatChangesDisks) {
    std::pair<std::string, int> const oldest{"day0.vmdk", 0};
    std::pair<std::string, int> const newest{"day2.vmdk", 2};
    expectLeaves({"drop", "day1.vmdk"}, {oldest, newest});
    expectLeaves({"drop", "day0.vmdk"}, {{"day1.vmdk", 1}, newest});
    expectLeaves({"delete", "day0.vmdk", "--keep-children"}, {{"day1.vmdk", 1}, newest});
    expectLeaves({"flatten", "day2.vmdk"}, {oldest, newest});
    expectLeaves({"rebase", "day2.vmdk", "--parent", "day0.vmdk"}, {oldest, newest});
    expectLeaves({"rename", "day1.vmdk", "new.vmdk"}, {{"new.vmdk", 1}, newest});
    expectLeaves({"compact", "day1.vmdk"}, {{"day1.vmdk", 1}, newest});
    expectLeaves({"repair", "day1.vmdk"}, {{"day1.vmdk", 1}, newest});
    expectLeaves({"prune", ".", "--keep-last", "1"}, {newest});
}

} // namespace

} // namespace lost_slots_test

} // namespace endtoend

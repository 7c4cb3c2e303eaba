// Backups that are kept for a year, or for as many times four weeks as KELM_MODEL_ROUNDS says. The
// program is killed and the power fails in the middle of all that is done with them. KELM_YEAR_SEED
// makes it another year.

#include <iostream>

#include <gtest/gtest.h>

#include "tests/support/model_rounds.h"
#include "tests/year/backup_server.h"

namespace year_test {

namespace {

constexpr unsigned int kSeed = 20310101;
constexpr int kDaysOfRound = 28;
constexpr int kDaysOfWeek = 7;
constexpr int kDaysOfYear = 364;
constexpr int kKillsOfYear = 100;

unsigned int seed() {
    char const* const text = std::getenv("KELM_YEAR_SEED");
    return text ? static_cast<unsigned int>(std::strtoul(text, nullptr, 10)) : kSeed;
}

std::vector<ServerKind> const kServers{
    {"Plain", {}, {{}}},
    {"Compressed", {"--compressed"}, {{"--compressed"}}},
    {"Encrypted",
     {"--encrypt", "--rounds", "1000", "--split", "2M"},
     {{"--compressed", "--rounds", "1000"}, {"--split", "3M", "--rounds", "1000"}},
     true},
};

class Year : public testing::TestWithParam<ServerKind> {
protected:
    static void printCounts(BackupServer const& server) {
        for (auto const& [command, count] : server.getCounts())
            std::cout << command << ": " << count.runs << " runs, " << count.kills << " kills, "
                      << count.cuts << " power cuts\n";
        std::cout << server.countDays() << " days kept\n";
    }

    static void expectTrouble(BackupServer const& server, int days) {
        int kills = 0;
        for (char const* const command :
             {"import", "prune", "drop", "merge", "rename", "copy", "delete", "rebase", "flatten",
              "convert", "digest", "repair"}) {
            auto const found = server.getCounts().find(command);
            TroubleCount const count =
                found == server.getCounts().end() ? TroubleCount() : found->second;
            EXPECT_GT(count.kills, 0) << command;
            EXPECT_GT(count.cuts, 0) << command;
            kills += count.kills;
        }
        if (days >= kDaysOfYear) {
            EXPECT_GE(kills, kKillsOfYear);
        }
    }
};

TEST_P(Year, EveryKeptDayIsWhatItWas) {
    int const days = kDaysOfRound * static_cast<int>(test_support::modelRounds());
    std::cout << days << " days, seed " << seed() << "\n";
    std::mt19937 random(seed());
    BackupServer server(GetParam(), random);
    for (int day = 0; day < days && !HasFailure(); ++day) {
        server.liveADay();
        if (day % kDaysOfWeek == kDaysOfWeek - 1 && !HasFailure())
            server.prune();
        if (day >= 3 && !HasFailure())
            server.doNextChore();
        if (day == days / 4 && !HasFailure())
            server.loseDataSector();
        if (day == days / 2 && GetParam().isEncrypted && !HasFailure())
            server.changePassword();
        if (day == days * 3 / 5 && !HasFailure())
            server.moveFolder();
        if (day == days * 3 / 4 && !HasFailure())
            server.loseTableSector();
    }
    printCounts(server);
    if (HasFailure())
        return;
    server.expectAllIsWell();
    expectTrouble(server, days);
}

INSTANTIATE_TEST_SUITE_P(Servers, Year, testing::ValuesIn(kServers),
                         [](auto const& kind) { return std::string(kind.param.name); });

} // namespace

} // namespace year_test

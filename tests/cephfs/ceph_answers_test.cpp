#include "integrations/cephfs/ceph_answers.h"

#include <gtest/gtest.h>

#include "tests/support/expect_error.h"

namespace ceph_answers_test {

namespace {

using kelm::ceph::CephClient;
using kelm::ceph::CephFileUse;
using kelm::ceph::parseClients;
using kelm::ceph::parseFileUses;

yx::CURI const kFile("ceph:/a.vmdk");

TEST(CephAnswers, ClientsAreThoseOfTheList) {
    std::string const answer = R"([
        {"id": 4153, "entity": {"name": {"type": "client", "num": 4153}}, "state": "open",
         "num_caps": 1, "uptime": 64.84, "inst": "client.4153 127.0.0.1:0/2282722279",
         "client_metadata": {"ceph_version": "ceph version 16.2.15", "entity_id": "writer",
                             "hostname": "backup-2", "pid": "15096", "root": "/",
                             "uuid": "8913b60b-8229-4bd6-a5af-7433b72afad1"}},
        {"id": 9007199254740993, "state": "stale", "client_metadata": {}},
        {"id": 3, "client_metadata": {"pid": 17, "hostname": "h"}}])";
    std::vector<CephClient> const clients = parseClients(answer, kFile);
    ASSERT_EQ(clients.size(), 3U);
    EXPECT_EQ(clients[0].number, 4153);
    EXPECT_EQ(clients[0].host, "backup-2");
    EXPECT_EQ(clients[0].user, "writer");
    EXPECT_EQ(clients[0].process, "15096");
    EXPECT_EQ(clients[0].uuid, "8913b60b-8229-4bd6-a5af-7433b72afad1");
    EXPECT_EQ(clients[0].connectedSeconds, 64);
    EXPECT_FALSE(clients[0].isMissed);
    EXPECT_EQ(clients[1].number, 9007199254740993);
    EXPECT_EQ(clients[1].host, "");
    EXPECT_EQ(clients[1].connectedSeconds, std::nullopt);
    EXPECT_TRUE(clients[1].isMissed);
    EXPECT_EQ(clients[2].process, "17");
    EXPECT_EQ(parseClients("[]", kFile).size(), 0U);
}

/// The answer for a file of which one client has something.
std::string inodeWith(std::string const& issued, std::string const& wanted) {
    return R"([{"ino": 1099511627776, "mode": 33206, "client_caps": [{"client_id": 4149, "pending": ")" +
           issued + R"(", "issued": ")" + issued + R"(", "wanted": ")" + wanted +
           R"(", "last_sent": 10}], "loner": -1, "dirfrags": []}])";
}

TEST(CephAnswers, FilesAreUsedAsTheirCapabilitiesSay) {
    struct {
        char const* issued;
        char const* wanted;
        bool isOpen;
        bool isOpenForWriting;
        bool mayHaveChanges;
    } const cases[] = {
        {"pAsLsXsFrw", "pAsxXsxFsxcrwb", true, true, true},
        {"pAsLsXsFr", "pAsxXsxFsxcrwb", true, true, false},
        {"pAsLsXsFscr", "pFscr", true, false, false},
        {"pAsLsXsFscr", "-", false, false, false},
        {"pAsxLsXsxFsxcrwb", "-", false, false, true},
        {"pAsxLsXsFs", "p", false, false, true},
        {"pAsLsXsFb", "p", false, false, true},
        {"p", "p", false, false, false},
        // What stands for other things than the content has letters of its own.
        {"pFwAs", "pFrXs", true, false, true},
    };
    for (auto const& each : cases) {
        SCOPED_TRACE(std::string(each.issued) + " " + each.wanted);
        std::vector<CephFileUse> const uses =
            parseFileUses(inodeWith(each.issued, each.wanted), kFile);
        ASSERT_EQ(uses.size(), 1U);
        EXPECT_EQ(uses[0].client, 4149);
        EXPECT_EQ(uses[0].isOpen, each.isOpen);
        EXPECT_EQ(uses[0].isOpenForWriting, each.isOpenForWriting);
        EXPECT_EQ(uses[0].mayHaveChanges, each.mayHaveChanges);
    }
}

TEST(CephAnswers, AFileThatIsInNoMemoryIsNobodys) {
    EXPECT_EQ(parseFileUses("", kFile).size(), 0U);
    EXPECT_EQ(parseFileUses(R"([{"ino": 1, "client_caps": []}])", kFile).size(), 0U);
}

TEST(CephAnswers, WhatIsNoAnswerIsAnError) {
    for (char const* const answer : {"", "{", "{}", "3", "null", R"([3])", R"([{"id": "x"}])",
                                     R"([{}])", R"([{"id": 3, "client_metadata": 5}])"}) {
        SCOPED_TRACE(answer);
        EXPECT_TRUE(test_support::throwsIOError(
            yx::CIOError::IOFailure, "The metadata server's answer is not understood.",
            {{"uri", "ceph:/a.vmdk"}}, [&] { parseClients(answer, kFile); }));
    }
    for (char const* const answer :
         {"{", "[]", "{}", R"([{"ino": 1}])", R"([{"client_caps": {}}])",
          R"([{"client_caps": [{"client_id": 1, "issued": "p"}]}])",
          R"([{"client_caps": [{"client_id": 1, "issued": "p", "wanted": 3}]}])"}) {
        SCOPED_TRACE(answer);
        EXPECT_TRUE(test_support::throwsIOError(
            yx::CIOError::IOFailure, "The metadata server's answer is not understood.",
            {{"uri", "ceph:/a.vmdk"}}, [&] { parseFileUses(answer, kFile); }));
    }
}

} // namespace

} // namespace ceph_answers_test

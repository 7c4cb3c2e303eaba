#include "yx/log.h"

#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "yx/error.h"

namespace {

using yx::LogEntry;
using yx::LogLevel;

/// Every test begins and ends with the default handlers.
class Log : public testing::Test {
protected:
    void SetUp() override { restore(); }
    void TearDown() override { restore(); }

    static void restore() {
        yx::setLogHandler(nullptr);
        yx::setIgnoredExceptionHandler(nullptr);
    }

    template <class Action>
    static std::string stderrOf(Action const& action) {
        testing::internal::CaptureStderr();
        action();
        return testing::internal::GetCapturedStderr();
    }
};

using IgnoredExceptions = Log;

TEST_F(Log, HandlerReceivesAWarningWithoutError) {
    std::vector<LogEntry> entries;
    yx::setLogHandler([&](LogEntry const& entry) { entries.push_back(entry); });
    EXPECT_EQ("", stderrOf([] { yx::logWarning("Careful."); }));
    ASSERT_EQ(1u, entries.size());
    EXPECT_EQ(LogLevel::Warning, entries[0].level);
    EXPECT_TRUE(entries[0].message == "Careful.");
    EXPECT_TRUE(entries[0].detail.isEmpty());
    EXPECT_EQ(nullptr, entries[0].error);
}

TEST_F(Log, HandlerReceivesWarningsAndErrorsAboutAnError) {
    std::runtime_error const error("Broken.");
    std::vector<LogEntry> entries;
    yx::setLogHandler([&](LogEntry const& entry) { entries.push_back(entry); });
    yx::logWarning(error, "Careful.", "Detail 1.");
    yx::logError(error, "Failed.", "");
    ASSERT_EQ(2u, entries.size());
    EXPECT_EQ(LogLevel::Warning, entries[0].level);
    EXPECT_TRUE(entries[0].message == "Careful.");
    EXPECT_TRUE(entries[0].detail == "Detail 1.");
    EXPECT_EQ(&error, entries[0].error);
    EXPECT_EQ(LogLevel::Error, entries[1].level);
    EXPECT_TRUE(entries[1].message == "Failed.");
    EXPECT_TRUE(entries[1].detail.isEmpty());
    EXPECT_EQ(&error, entries[1].error);
}

TEST_F(Log, SettingAHandlerGivesTheOneItReplaces) {
    int first = 0;
    int second = 0;
    EXPECT_FALSE(yx::setLogHandler([&](LogEntry const&) { ++first; }));
    auto const replaced = yx::setLogHandler([&](LogEntry const&) { ++second; });
    ASSERT_TRUE(replaced);
    yx::logWarning("To the second.");
    EXPECT_EQ(0, first);
    EXPECT_EQ(1, second);
    EXPECT_TRUE(yx::setLogHandler(replaced));
    yx::logWarning("To the first.");
    EXPECT_EQ(1, first);
    EXPECT_TRUE(yx::setLogHandler(nullptr));
    EXPECT_FALSE(yx::setLogHandler(nullptr));
}

TEST_F(Log, DefaultWritesOneLineToStandardError) {
    yx::CProps props;
    props.add("uri", "file:///a").add("position", "5");
    yx::CIOError const error(yx::CIOError::IOFailure, "Broken.", props, nullptr);
    EXPECT_EQ("warning: Careful.\n", stderrOf([] { yx::logWarning("Careful."); }));
    EXPECT_EQ("warning: Careful. Detail.: Broken. (uri: file:///a, position: 5)\n",
              stderrOf([&] { yx::logWarning(error, "Careful.", "Detail."); }));
    EXPECT_EQ("error: Failed.: Broken. (uri: file:///a, position: 5)\n",
              stderrOf([&] { yx::logError(error, "Failed.", ""); }));
    EXPECT_EQ("error: Failed.: plain\n",
              stderrOf([] { yx::logError(std::runtime_error("plain"), "Failed.", ""); }));
}

TEST_F(Log, DefaultKeepsToOneLineWhateverTheText) {
    EXPECT_EQ("warning: a b  c\xC3\xA4\n", stderrOf([] { yx::logWarning("a\nb\r\nc\xC3\xA4"); }));
}

TEST_F(Log, RestoredDefaultWritesAgain) {
    yx::setLogHandler([](LogEntry const&) {});
    yx::setLogHandler(nullptr);
    EXPECT_EQ("warning: Careful.\n", stderrOf([] { yx::logWarning("Careful."); }));
}

TEST_F(Log, WhatTheHandlerThrowsReachesTheOneWhoLogs) {
    yx::setLogHandler([](LogEntry const&) { throw std::runtime_error("full"); });
    EXPECT_THROW(yx::logWarning("Careful."), std::runtime_error);
}

TEST_F(Log, HandlerMayReplaceItself) {
    int calls = 0;
    yx::setLogHandler([&](LogEntry const&) {
        ++calls;
        yx::setLogHandler([](LogEntry const&) {});
    });
    yx::logWarning("One.");
    yx::logWarning("Two.");
    EXPECT_EQ(1, calls);
}

TEST_F(IgnoredExceptions, HandlerReceivesClassErrorAndFlag) {
    std::string names;
    std::exception* seen = nullptr;
    yx::setIgnoredExceptionHandler([&](char const* className, std::exception& error, bool flag) {
        names += std::string(className) + (flag ? " true;" : " false;");
        seen = &error;
    });
    std::runtime_error error("Broken.");
    EXPECT_EQ("", stderrOf([&] {
                  yx::onExceptionInDestructorIgnored("kelm::CVMDKGrainTable", error, true);
                  yx::onExceptionInDestructorIgnored("kelm::CVMDKDisk", error, false);
              }));
    EXPECT_EQ("kelm::CVMDKGrainTable true;kelm::CVMDKDisk false;", names);
    EXPECT_EQ(&error, seen);
}

TEST_F(IgnoredExceptions, SettingAHandlerGivesTheOneItReplaces) {
    int first = 0;
    std::runtime_error error("Broken.");
    EXPECT_FALSE(
        yx::setIgnoredExceptionHandler([&](char const*, std::exception&, bool) { ++first; }));
    auto const replaced = yx::setIgnoredExceptionHandler([](char const*, std::exception&, bool) {});
    ASSERT_TRUE(replaced);
    yx::onExceptionInDestructorIgnored("C", error, true);
    EXPECT_EQ(0, first);
    EXPECT_TRUE(yx::setIgnoredExceptionHandler(replaced));
    yx::onExceptionInDestructorIgnored("C", error, true);
    EXPECT_EQ(1, first);
    EXPECT_TRUE(yx::setIgnoredExceptionHandler(nullptr));
    EXPECT_FALSE(yx::setIgnoredExceptionHandler(nullptr));
}

TEST_F(IgnoredExceptions, DefaultWritesOneLineToStandardError) {
    yx::CProps props;
    props.add("uri", "file:///a");
    yx::CIOError error(yx::CIOError::IOFailure, "Broken\nfor good.", props, nullptr);
    EXPECT_EQ(
        "error: exception ignored in the destructor of kelm::CVMDKDisk: Broken for good. "
        "(uri: file:///a)\n",
        stderrOf([&] { yx::onExceptionInDestructorIgnored("kelm::CVMDKDisk", error, true); }));
}

TEST_F(IgnoredExceptions, NothingComesOutWhateverTheHandlerThrows) {
    static_assert(
        noexcept(yx::onExceptionInDestructorIgnored("", std::declval<std::exception&>(), true)));
    std::runtime_error error("Broken.");
    yx::setIgnoredExceptionHandler([](char const*, std::exception&, bool) { throw 5; });
    EXPECT_EQ("", stderrOf([&] { yx::onExceptionInDestructorIgnored("C", error, true); }));
}

TEST_F(IgnoredExceptions, AreNoLogEntries) {
    int entries = 0;
    yx::setLogHandler([&](LogEntry const&) { ++entries; });
    yx::setIgnoredExceptionHandler([](char const*, std::exception&, bool) {});
    std::runtime_error error("Broken.");
    yx::onExceptionInDestructorIgnored("C", error, true);
    EXPECT_EQ(0, entries);
}

} // namespace

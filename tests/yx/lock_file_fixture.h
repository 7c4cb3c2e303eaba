#pragma once

#include <exception>
#include <functional>
#include <optional>
#include <string>
#include <typeinfo>
#include <utility>

#include <gtest/gtest.h>

#include "tests/support/bytes.h"
#include "tests/support/expect_error.h"
#include "tests/support/hooked_file_system.h"
#include "yx/lock_file.h"

/// What the tests of lock files have in common.
namespace lock_file_fixture {

using Held = yx::P<yx::CLockFile>;

inline constexpr char kName[] = "disk.vmdk.lock";
inline constexpr char kInUse[] =
    "The disk is in use: its lock file is held by another program or another open disk.";

/// What a crash may leave of a file that was about to be removed.
inline constexpr char kMark[] = "kelm dead lock: 0123456789abcdef";

inline constexpr yx::CLockFile::LockType kBothTypes[] = {yx::CLockFile::Shared,
                                                         yx::CLockFile::Exclusive};

inline Held take(yx::IFileSystem& files, yx::CURI const& uri, yx::CLockFile::LockType type) {
    return yx::makeObject<yx::CLockFile>(&files, uri, type, false, true);
}

/// Null if another holder is in the way; any other failure is the test's.
inline Held tryTake(yx::IFileSystem& files, yx::CURI const& uri, yx::CLockFile::LockType type) {
    try {
        return take(files, uri, type);
    } catch (yx::CLockFileError const& error) {
        EXPECT_STREQ(error.what(), kInUse);
        return {};
    }
}

/// What `action` throws; it has to be exactly a `CLockFileError` with "uri" alone.
inline std::optional<yx::CLockFileError> catchLockFileError(yx::CURI const& uri,
                                                            std::function<void()> const& action) {
    try {
        action();
    } catch (yx::CLockFileError const& error) {
        EXPECT_EQ(typeid(error), typeid(yx::CLockFileError));
        EXPECT_EQ(error.getCode(), -1);
        EXPECT_EQ(error.getDetail(), "");
        EXPECT_EQ(test_support::propsOf(error),
                  (test_support::Props{{"uri", uri.toString(true).toStdString()}}));
        return error;
    }
    ADD_FAILURE() << "threw nothing";
    return std::nullopt;
}

/// Expects that message, and a cause that is a `CIOError` of that code and message.
inline void expectLockFileError(yx::CURI const& uri, std::string const& message,
                                yx::CIOError::Code causeCode, std::string const& causeMessage,
                                std::function<void()> const& action) {
    auto const error = catchLockFileError(uri, action);
    if (!error)
        return;
    EXPECT_EQ(error->getMessage().toStdString(), message);
    auto const* const cause = dynamic_cast<yx::CIOError const*>(error->getCause());
    ASSERT_NE(cause, nullptr);
    EXPECT_EQ(cause->getIOCode(), causeCode);
    EXPECT_EQ(cause->getMessage().toStdString(), causeMessage);
}

/// Lock files of one name on the file system of a backend.
template <class Backend>
class LockFile : public testing::Test {
protected:
    Held take(yx::CLockFile::LockType type) {
        return lock_file_fixture::take(files(), uri(), type);
    }
    Held tryTake(yx::CLockFile::LockType type) {
        return lock_file_fixture::tryTake(files(), uri(), type);
    }
    bool exists() { return files().fileExists(uri()); }

    yx::P<yx::IIOStream> open(yx::IIOStream::Access access = yx::IIOStream::ReadWrite) {
        unsigned int reserved = 0;
        return files().openFile(uri(), access, &reserved);
    }

    yx::IFileSystem& files() { return *backend.files; }
    yx::CURI uri() const { return backend.uri(kName); }

    /// Makes or replaces the file, as others do who know nothing of lock files.
    void put(std::string const& content) {
        open()->setLength(0);
        test_support::writeAt(*open(), 0, test_support::fromText(content));
    }
    std::string get() { return test_support::toText(test_support::readFile(files(), uri())); }

    /// That nothing is held and nothing is left over that blocks.
    void expectFree() {
        EXPECT_TRUE(tryTake(yx::CLockFile::Exclusive));
        EXPECT_FALSE(exists());
    }

    Backend backend;
};

/// Runs `action` once, at the `nth` place (from 1) before or behind an operation that goes through
/// it.
class Interruption {
public:
    Interruption(yx::IFileSystem& files, int nth, std::function<void()> action)
        : m_remaining(nth),
          m_action(std::move(action)),
          m_files(yx::makeObject<test_support::HookedFileSystem>(
              &files, [this](test_support::FileOperation&,
                             test_support::HookedFileSystem::Proceed const& proceed) {
                  pass();
                  try {
                      proceed();
                  } catch (std::exception const&) {
                      pass();
                      throw;
                  }
                  pass();
              })) {}

    yx::IFileSystem& files() { return *m_files; }
    bool hasHappened() const { return m_remaining <= 0; }

    /// Counts from here on.
    void restart(int nth) { m_remaining = nth; }

private:
    void pass() {
        if (--m_remaining == 0)
            m_action();
    }

    int m_remaining;
    std::function<void()> m_action;
    yx::P<test_support::HookedFileSystem> m_files;
};

} // namespace lock_file_fixture

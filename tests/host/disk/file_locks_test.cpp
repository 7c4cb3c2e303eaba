#include "host/disk/file_locks.h"

#include <fstream>

#include <gtest/gtest.h>

#include "host/store/file_names.h"
#include "tests/support/temp_directory.h"

namespace {

using kelm::host::FileLock;
using kelm::host::FileLocks;

TEST(FileLocks, AreHeldUntilTheLastReferenceEnds) {
    test_support::TempDirectory const folder;
    std::string const path = folder.path() / "file";
    std::ofstream(path) << "content";
    yx::P<FileLocks> locks = yx::makeObject<FileLocks>();
    ASSERT_TRUE(locks->take(kelm::host::uriFromArgument(path), FileLock::Type::Exclusive));
    { yx::P<FileLocks> const another = locks; }
    EXPECT_FALSE(FileLock::tryTake(path, FileLock::Type::Shared));
    locks.reset();
    EXPECT_TRUE(FileLock::tryTake(path, FileLock::Type::Shared));
}

} // namespace

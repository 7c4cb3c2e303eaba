#include "host/store/stores.h"

#include <memory>

#include <gmock/gmock.h>

#include "host/store/file_locking.h"
#include "host/store/file_moving.h"
#include "host/store/file_names.h"
#include "host/store/file_status.h"
#include "host/store/folder_access.h"
#include "host/store/folder_files.h"
#include "host/store/folder_sync.h"
#include "host/store/free_space.h"
#include "host/store/kept_files.h"
#include "host/store/sync_watch.h"
#include "tests/support/expect_error.h"
#include "tests/support/log_capture.h"
#include "tests/support/store_fixture.h"

namespace {

using kelm::host::FileKind;
using kelm::host::FileLock;
using kelm::host::FileStatus;
using test_support::throwsIOError;
using testing::ElementsAre;

using StoresTest = test_support::StoreTest;

TEST_F(StoresTest, AreFoundBySchemeAndKeptApart) {
    EXPECT_NE(kelm::host::findStore(uri("a")), nullptr);
    EXPECT_EQ(kelm::host::findStore(uri("a")), kelm::host::findStore(yx::CURI("TEST:/b")));
    EXPECT_NE(kelm::host::findStore(uri("a")), kelm::host::findStore(folder.uri("a")));
    EXPECT_EQ(kelm::host::findStore(yx::CURI("none:/a")), nullptr);
    EXPECT_EQ(kelm::host::findStore(yx::CURI("../a")), nullptr);
    EXPECT_TRUE(throwsIOError(yx::CIOError::NotSupported, "There is no store for 'none:' here.",
                              {{"uri", "none:/a"}},
                              [&] { kelm::host::storeOf(yx::CURI("none:/a")); }));
}

TEST_F(StoresTest, AreNamedByWhatLooksLikeAURIOfThem) {
    for (char const* const name :
         {"test:/a", "ceph:/a", "ceph://u@f/a", "s3://b/k", "https://h/p", "TEST:/a"})
        EXPECT_TRUE(kelm::host::isStoreURI(name)) << name;
    for (char const* const name :
         {"a", "./test:/a", "test:a", ":/a", "file:/a", "none:/a", "C:/a", "a b:/c", "../x:/y"})
        EXPECT_FALSE(kelm::host::isStoreURI(name)) << name;
}

TEST_F(StoresTest, ThatIsNotThereAnyMoreIsNotFound) {
    {
        kelm::host::AddedStore const other("other", store);
        EXPECT_NE(kelm::host::findStore(yx::CURI("other:/a")), nullptr);
    }
    EXPECT_EQ(kelm::host::findStore(yx::CURI("other:/a")), nullptr);
}

TEST_F(StoresTest, GiveOneNameToAllSpellingsOfAFile) {
    std::filesystem::create_directory(folder.path() / "real");
    put("real/a b.vmdk", "x");
    std::filesystem::create_directory_symlink("real", folder.path() / "link");
    for (char const* const name : {"test:/link/a%20b.vmdk", "test:/real/../link//./a%20b.vmdk"})
        EXPECT_EQ(kelm::host::uriFromArgument(name), uri("real/a%20b.vmdk")) << name;
    EXPECT_EQ(kelm::host::resolveName(uri("link/new")), uri("real/new"));
    EXPECT_EQ(kelm::host::resolveName(yx::CURI("none:/a/../b")), yx::CURI("none:/b"));
    EXPECT_TRUE(kelm::host::isSameFile(uri("link/a%20b.vmdk"), uri("real/a%20b.vmdk")));
    EXPECT_FALSE(kelm::host::isSameFile(uri("real/a%20b.vmdk"), folder.uri("real/a b.vmdk")));
}

TEST_F(StoresTest, SayWhatAFileIs) {
    put("file", "12345");
    std::optional<FileStatus> const status = kelm::host::findStatus(uri("file"));
    ASSERT_TRUE(status);
    EXPECT_EQ(status->kind, FileKind::File);
    EXPECT_EQ(status->lengthBytes, 5);
    EXPECT_GT(status->modifiedNanoseconds, 0);
    EXPECT_EQ(status->identity.store, "test " + folder.path().string());
    EXPECT_EQ(kelm::host::findStatus(uri(""))->kind, FileKind::Folder);
    EXPECT_FALSE(kelm::host::findStatus(uri("none")));
    EXPECT_FALSE(kelm::host::findStatus(yx::CURI("none:/file")));
    EXPECT_TRUE(kelm::host::isOtherThanFile(uri("")));
    EXPECT_FALSE(kelm::host::isOtherThanFile(uri("file")));
    std::optional<FileStatus> const local = kelm::host::findStatus(folder.uri("file"));
    ASSERT_TRUE(local);
    EXPECT_EQ(local->lengthBytes, 5);
    EXPECT_EQ(local->identity.inode, status->identity.inode);
    EXPECT_EQ(local->identity, kelm::host::identifyFile((folder.path() / "file").string()));
}

TEST_F(StoresTest, KnowAFileByItsStreamWhateverHasItsName) {
    put("file", "old");
    yx::P<yx::IIOStream> const stream = open("file");
    auto const before = kelm::host::identifyFile(uri("file"));
    EXPECT_EQ(kelm::host::identifyStream(*stream), before);
    std::filesystem::rename(folder.path() / "file", folder.path() / "elsewhere");
    put("file", "new");
    EXPECT_EQ(kelm::host::identifyStream(*stream), before);
    EXPECT_NE(kelm::host::identifyFile(uri("file")), before);
    // Streams that pass on are on the same file.
    yx::P<kelm::host::SyncWatch> const watch = yx::makeObject<kelm::host::SyncWatch>(files.get());
    unsigned int options = 0;
    EXPECT_EQ(kelm::host::identifyStream(
                  *watch->openFile(uri("elsewhere"), yx::IIOStream::ReadWrite, &options)),
              before);
    stream->close();
    EXPECT_FALSE(kelm::host::identifyStream(*stream));
}

TEST_F(StoresTest, FilesAreOpenedMovedAndDeletedByTheirScheme) {
    open("file")->write("abc", 3, nullptr);
    EXPECT_EQ(contentOf("file"), "abc");
    EXPECT_TRUE(files->fileExists(uri("file")));
    EXPECT_TRUE(files->fileExists(folder.uri("file")));
    kelm::host::moveFile(files.get(), uri("file"), uri("moved"));
    EXPECT_EQ(contentOf("moved"), "abc");
    put("taken", "other");
    EXPECT_TRUE(throwsIOError(
        yx::CIOError::AlreadyExists, "The file exists already.", {{"uri", "test:/taken"}},
        [&] { kelm::host::moveFile(files.get(), uri("moved"), uri("taken")); }));
    EXPECT_EQ(contentOf("taken"), "other");
    EXPECT_EQ(kelm::host::moveAside(files.get(), uri("moved"), "old"), uri("moved.old"));
    files->deleteFile(uri("moved.old"), false);
    EXPECT_FALSE(isThere("moved.old"));
    EXPECT_TRUE(throwsIOError(yx::CIOError::NotSupported, "There is no store for 'none:' here.",
                              {{"uri", "none:/a"}},
                              [&] { files->fileExists(yx::CURI("none:/a")); }));
}

TEST_F(StoresTest, LockWholeFiles) {
    put("file", "x");
    {
        std::optional<FileLock> const lock =
            kelm::host::tryLockFile(uri("file"), FileLock::Type::Exclusive);
        ASSERT_TRUE(lock);
        EXPECT_TRUE(lock->isHeld());
        EXPECT_EQ(lock->getFile(), kelm::host::identifyFile(uri("file")));
        EXPECT_FALSE(kelm::host::tryLockFile(uri("file"), FileLock::Type::Shared));
        EXPECT_FALSE(
            kelm::host::tryLockStream(open("file"), FileLock::Type::Exclusive).has_value());
    }
    std::optional<FileLock> const shared =
        kelm::host::tryLockFile(uri("file"), FileLock::Type::Shared);
    ASSERT_TRUE(shared && shared->isHeld());
    EXPECT_TRUE(kelm::host::tryLockFile(uri("file"), FileLock::Type::Shared));
    EXPECT_FALSE(kelm::host::tryLockFile(uri("file"), FileLock::Type::Exclusive));
    EXPECT_FALSE(kelm::host::tryLockFile(yx::CURI("none:/file"), FileLock::Type::Shared)->isHeld());
    EXPECT_THROW(kelm::host::tryLockFile(uri("none"), FileLock::Type::Exclusive), yx::CIOError);
    EXPECT_FALSE(isThere("none"));
}

TEST_F(StoresTest, ListTheFilesBelowAFolder) {
    std::filesystem::create_directories(folder.path() / "b/c");
    for (char const* const name : {"z", "b/c/x", "b/y y"})
        put(name, name);
    std::filesystem::create_symlink("z", folder.path() / "link");
    EXPECT_THAT(kelm::host::listFilesBelow(uri("")),
                ElementsAre(uri("b/c/x"), uri("b/y%20y"), uri("z")));
    EXPECT_THAT(kelm::host::listFilesBelow(uri("b")), ElementsAre(uri("b/c/x"), uri("b/y%20y")));
    EXPECT_THROW(kelm::host::listFilesBelow(uri("none")), yx::CIOError);
}

TEST_F(StoresTest, SayWhatRoomThereIs) {
    EXPECT_EQ(kelm::host::getFreeBytes(uri("")).has_value(), true);
    EXPECT_FALSE(kelm::host::getFreeBytes(yx::CURI("none:/")));
    EXPECT_EQ(kelm::host::getMaxFileLengthBytes(yx::CURI("none:/a")), 0x7fffffffffffffff);
    store->setMaxFileLengthBytes(12345);
    EXPECT_EQ(kelm::host::getMaxFileLengthBytes(uri("a")), 12345);
    kelm::host::verifyMayWriteInFolderOf(uri("a"));
    kelm::host::syncFolder(uri(""));
}

TEST_F(StoresTest, FilesThatAreReplacedAreKept) {
    for (bool const hasLinks : {true, false}) {
        store->setLinks(hasLinks);
        put("disk", "main");
        put("disk-s1", "extent");
        auto kept =
            std::make_unique<kelm::host::KeptFiles>(std::vector{uri("disk"), uri("disk-s1")});
        EXPECT_EQ(isThere("disk"), hasLinks);
        EXPECT_EQ(contentOf("disk.former/disk"), "main");
        EXPECT_THAT(kelm::host::KeptFiles::findFoldersOf(uri("disk")),
                    ElementsAre(uri("disk.former")));
        std::filesystem::remove(folder.path() / "disk");
        kept.reset();
        EXPECT_EQ(contentOf("disk"), "main");
        EXPECT_EQ(contentOf("disk-s1"), "extent");
        EXPECT_FALSE(isThere("disk.former"));

        kept = std::make_unique<kelm::host::KeptFiles>(std::vector{uri("disk")});
        std::filesystem::remove(folder.path() / "disk");
        put("disk", "new");
        kept->drop();
        kept.reset();
        EXPECT_EQ(contentOf("disk"), "new");
        EXPECT_FALSE(isThere("disk.former"));
    }
}

TEST_F(StoresTest, FilesThatAreKeptStayWhereAnotherHasTheirName) {
    store->setLinks(false);
    put("disk", "main");
    test_support::LogCapture const log;
    {
        kelm::host::KeptFiles const kept({uri("disk")});
        put("disk", "another");
    }
    EXPECT_EQ(contentOf("disk"), "another");
    EXPECT_EQ(contentOf("disk.former/disk"), "main");
    ASSERT_EQ(log.entries().size(), 1U);
    EXPECT_EQ(log.entries()[0].message,
              "The former disk could not be put back, and is kept in 'test:/disk.former'.");
}

} // namespace

// What a store of files offers beside opening, on a cluster.

#include <array>
#include <atomic>
#include <limits>
#include <string>
#include <thread>
#include <vector>

#include <cephfs/libcephfs.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/cluster/administrator.h"
#include "tests/cluster/cluster_backends.h"
#include "tests/cluster/cluster_shell.h"
#include "tests/support/bytes.h"
#include "tests/support/expect_error.h"

namespace cluster_store_test {

namespace {

using cluster_shell::Administrator;
using cluster_shell::comesTrue;
using file_system_backends::Cluster;
using file_system_backends::getClient;
using kelm::ceph::CCephFileSystem;
using kelm::host::FileKind;
using test_support::fromText;
using test_support::readFile;
using test_support::sameBytes;
using test_support::throwsIOError;
using yx::CIOError;
using yx::CURI;
using yx::IIOStream;
using yx::IStreamBase;

constexpr __int64 kWholeFile = std::numeric_limits<__int64>::max();

class ClusterStore : public testing::Test {
protected:
    yx::P<IIOStream> open(std::string const& name) {
        return files.openFile(backend.uri(name), IIOStream::ReadWrite, nullptr);
    }
    void make(std::string const& name, std::string const& content) {
        test_support::writeAt(*open(name), 0, fromText(content));
    }
    std::string text(std::string const& name) const {
        return backend.uri(name).toString(true).toStdString();
    }
    CURI below(std::string const& path) const {
        return CURI(yx::String::fromUTF8(backend.folder.toString(true).toStdString() + "/" + path));
    }

    Cluster backend;
    CCephFileSystem& files = getClient(0);
};

TEST_F(ClusterStore, ANameIsResolvedToTheOneThatAllSpellingsShare) {
    make("a", "content");
    backend.makeFolder("d");
    Administrator administrator;
    administrator.makeLink("a", backend.uri("toFile"));
    administrator.makeLink("d", backend.uri("toFolder"));
    administrator.makeLink("../d/", below("d/back"));
    administrator.makeLink(Administrator::pathOf(backend.folder), backend.uri("whole"));
    for (char const* spelling :
         {"a", "./a", "d/../a", "toFile", "toFolder/../a", "whole/a", "d//.././/a", "%61",
          "d/back/../toFile", "whole/toFolder/back/../a"}) {
        EXPECT_EQ(files.resolveName(below(spelling)), backend.uri("a")) << spelling;
    }
    for (char const* spelling : {"d", "d/", "d/.", "toFolder", "toFolder/", "d/back/"})
        EXPECT_EQ(files.resolveName(below(spelling)), backend.uri("d")) << spelling;
    for (char const* spelling : {"d/new", "toFolder/new", "d/back/new", "whole/d/../d/new"})
        EXPECT_EQ(files.resolveName(below(spelling)), below("d/new")) << spelling;
    EXPECT_EQ(files.resolveName(CURI("ceph://writer@disks/../..")), CURI("ceph://writer@disks/"));
}

TEST_F(ClusterStore, ANameKeepsItsUserAndTheCaseOfItsFileSystem) {
    make("a b", "content");
    std::string const path = backend.uri("a b").getPath().toStdString();
    EXPECT_EQ(files.resolveName(CURI(yx::String::fromUTF8("CEPH://client.writer@disks/." + path)))
                  .toString(true)
                  .toStdString(),
              "ceph://client.writer@disks" + path);
    // The cluster has no such file system, and is told of it as it was written.
    EXPECT_TRUE(throwsIOError(CIOError::NotFound,
                              "Cannot reach the cluster: it has no file system of that name (No "
                              "such file or directory).",
                              {{"uri", "ceph://writer@Disks/a"}},
                              [&] { files.resolveName(CURI("ceph://writer@Disks/a")); }));
}

TEST_F(ClusterStore, ANameThatNoFileCanHaveIsNotFound) {
    make("a", "content");
    Administrator administrator;
    administrator.makeLink("absent", backend.uri("dangling"));
    administrator.makeLink("round", backend.uri("round"));
    for (std::string const& name :
         {std::string("absent/a"), std::string("dangling"), std::string("a/"), std::string("a/b"),
          std::string("absent/"), std::string(300, 'x')}) {
        try {
            files.resolveName(below(name));
            ADD_FAILURE() << name;
        } catch (CIOError const& error) {
            EXPECT_EQ(error.getIOCode(), CIOError::NotFound) << error.what();
        }
    }
    EXPECT_TRUE(throwsIOError(
        CIOError::IOFailure, "Cannot query the file: Too many levels of symbolic links",
        {{"uri", text("round")}}, [&] { files.resolveName(backend.uri("round")); }));
}

TEST_F(ClusterStore, AUserOfOneFolderHasWholeNames) {
    try {
        files.makeFolder(CURI("ceph://writer@disks/tenant"));
    } catch (CIOError const& error) {
        ASSERT_EQ(error.getIOCode(), CIOError::AlreadyExists);
    }
    auto const own = yx::makeObject<CCephFileSystem>();
    for (char const* name : {"ceph://tenant@disks/tenant/./x", "ceph://tenant@disks/tenant/x"})
        EXPECT_EQ(own->resolveName(CURI(name)), CURI("ceph://tenant@disks/tenant/x"));
    EXPECT_EQ(own->resolveName(CURI("ceph://tenant@disks/tenant/")),
              CURI("ceph://tenant@disks/tenant"));
}

TEST_F(ClusterStore, WhatANameStandsForIsToldOrNothing) {
    make("a", "content");
    backend.makeFolder("d");
    Administrator administrator;
    administrator.makeLink("a", backend.uri("link"));
    auto const status = files.findStatus(backend.uri("a"), true);
    ASSERT_TRUE(status);
    EXPECT_EQ(status->kind, FileKind::File);
    EXPECT_EQ(status->lengthBytes, 7);
    EXPECT_EQ(status->allocatedBytes, 7);
    EXPECT_GT(status->modifiedNanoseconds, 1700000000LL * 1000000000);
    EXPECT_EQ(files.findStatus(backend.uri("link"), true)->identity, status->identity);
    EXPECT_EQ(files.findStatus(backend.uri("link"), false)->kind, FileKind::Link);
    EXPECT_EQ(files.findStatus(below("d/"), true)->kind, FileKind::Folder);
    for (std::string const& name :
         {std::string("absent"), std::string("a/b"), std::string("a/b/c"), std::string("a/"),
          std::string("link/"), std::string(300, 'x')}) {
        EXPECT_FALSE(files.findStatus(below(name), true)) << name;
        EXPECT_FALSE(files.findStatus(below(name), false)) << name;
        EXPECT_FALSE(files.fileExists(below(name))) << name;
    }
}

TEST_F(ClusterStore, BelowAFileThereIsNothing) {
    make("a", "content");
    EXPECT_TRUE(throwsIOError(CIOError::NotFound, "Cannot open the file: Not a directory",
                              {{"uri", text("a") + "/b"}},
                              [&] { files.openFile(below("a/b"), IIOStream::ReadOnly, nullptr); }));
    EXPECT_TRUE(throwsIOError(CIOError::NotFound, "Cannot delete the file: Not a directory",
                              {{"uri", text("a") + "/b"}},
                              [&] { files.deleteFile(below("a/b"), false); }));
    files.deleteFile(below("a/b"), true);
    files.verifyMayWriteIn(below("a"));
}

TEST_F(ClusterStore, FilesOfASnapshotAreOthersThanThoseOfToday) {
    make("a", "content");
    files.syncFolder(backend.folder);
    Administrator administrator;
    administrator.makeSnapshot(backend.folder, "one");
    auto const today = files.findStatus(backend.uri("a"), true);
    auto const former = files.findStatus(below(".snap/one/a"), true);
    ASSERT_TRUE(today && former);
    EXPECT_EQ(former->identity.inode, today->identity.inode);
    EXPECT_THAT(former->identity.store, testing::MatchesRegex(today->identity.store + "@[0-9]+"));
    EXPECT_TRUE(sameBytes(fromText("content"), readFile(files, below(".snap/one/a"))));
    EXPECT_TRUE(throwsIOError(
        CIOError::AccessDenied, "Cannot make files in the folder: Read-only file system",
        {{"uri", text(".snap") + "/one"}}, [&] { files.verifyMayWriteIn(below(".snap/one")); }));
    administrator.removeSnapshot(backend.folder, "one");
}

TEST_F(ClusterStore, OfSeveralWhoRenameToOneNameOneSucceeds) {
    constexpr int kThreads = 4;
    for (int i = 0; i < kThreads; ++i)
        make(std::to_string(i), std::to_string(i));
    std::vector<std::thread> threads;
    std::atomic<int> renamed{0};
    std::atomic<int> refused{0};
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([&, i] {
            try {
                getClient(i % 2).renameIfAbsent(backend.uri(std::to_string(i)), backend.uri("to"));
                ++renamed;
            } catch (CIOError const& error) {
                refused += error.getIOCode() == CIOError::AlreadyExists ? 1 : 0;
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(renamed, 1);
    EXPECT_EQ(refused, kThreads - 1);
    EXPECT_EQ(files.listFolder(backend.folder).size(), static_cast<std::size_t>(kThreads));
}

TEST_F(ClusterStore, AFileThatIsThereStays) {
    make("a", "new");
    make("b", "old");
    EXPECT_TRUE(throwsIOError(CIOError::AlreadyExists, "The file exists already.",
                              {{"uri", text("b")}},
                              [&] { files.renameIfAbsent(backend.uri("a"), backend.uri("b")); }));
    EXPECT_TRUE(throwsIOError(CIOError::AlreadyExists, "The file exists already.",
                              {{"uri", text("b")}}, [&] { files.createFile(backend.uri("b")); }));
    EXPECT_TRUE(throwsIOError(CIOError::AlreadyExists, "The file exists already.",
                              {{"uri", text("b")}},
                              [&] { files.tryAddName(backend.uri("a"), backend.uri("b")); }));
    EXPECT_TRUE(sameBytes(fromText("old"), readFile(files, backend.uri("b"))));
    EXPECT_TRUE(sameBytes(fromText("new"), readFile(files, backend.uri("a"))));
    EXPECT_TRUE(
        throwsIOError(CIOError::NotFound, "Cannot rename the file: No such file or directory",
                      {{"uri", text("absent")}},
                      [&] { files.renameIfAbsent(backend.uri("absent"), backend.uri("c")); }));
}

TEST_F(ClusterStore, ALinkIsRenamedItself) {
    make("a", "content");
    Administrator administrator;
    administrator.makeLink("a", backend.uri("link"));
    files.renameIfAbsent(backend.uri("link"), backend.uri("renamed"));
    EXPECT_EQ(files.findStatus(backend.uri("renamed"), false)->kind, FileKind::Link);
    EXPECT_FALSE(files.findStatus(backend.uri("link"), false));
    files.rename(backend.uri("renamed"), backend.uri("again"));
    EXPECT_EQ(files.findStatus(backend.uri("again"), false)->kind, FileKind::Link);
    EXPECT_TRUE(sameBytes(fromText("content"), readFile(getClient(1), backend.uri("again"))));
}

TEST_F(ClusterStore, ASecondNameIsOneOfTheSameFile) {
    make("a", "content");
    EXPECT_TRUE(files.tryAddName(backend.uri("a"), backend.uri("b")));
    EXPECT_EQ(getClient(1).findStatus(backend.uri("b"), true)->identity,
              files.findStatus(backend.uri("a"), true)->identity);
    files.deleteFile(backend.uri("a"), false);
    EXPECT_TRUE(sameBytes(fromText("content"), readFile(getClient(1), backend.uri("b"))));
    backend.makeFolder("d");
    EXPECT_FALSE(files.tryAddName(backend.uri("d"), backend.uri("c")));
    EXPECT_TRUE(throwsIOError(CIOError::NotFound,
                              "Cannot give the file a second name: No such file or directory",
                              {{"uri", text("absent")}},
                              [&] { files.tryAddName(backend.uri("absent"), backend.uri("c")); }));
}

TEST_F(ClusterStore, RightsAreThoseOfAnotherFile) {
    constexpr unsigned int kOwnerAlone = 0600;
    make("a", "content");
    make("b", "content");
    Administrator administrator;
    administrator.setMode(backend.uri("a"), kOwnerAlone);
    files.copyRights(backend.uri("a"), backend.uri("b"));
    EXPECT_EQ(administrator.getMode(backend.uri("b")), kOwnerAlone);
    EXPECT_TRUE(throwsIOError(CIOError::NotFound,
                              "Cannot change the rights of the file: No such file or directory",
                              {{"uri", text("absent")}},
                              [&] { files.copyRights(backend.uri("a"), backend.uri("absent")); }));
}

TEST_F(ClusterStore, AFolderThatMayNotBeWrittenToIsRefused) {
    files.verifyMayWriteIn(backend.folder);
    files.verifyMayWriteIn(backend.uri("absent"));
    EXPECT_TRUE(files.listFolder(backend.folder).empty());
    std::string const path = backend.folder.getPath().toStdString();
    CURI const ofReader(yx::String::fromUTF8("ceph://reader@disks" + path));
    EXPECT_THAT(
        [&] { files.verifyMayWriteIn(ofReader); },
        testing::Throws<CIOError>(testing::Property(&CIOError::getIOCode, CIOError::AccessDenied)));
}

TEST_F(ClusterStore, TheRoomIsThatOfTheNearestLimit) {
    auto const whole = files.findRoom(backend.folder);
    ASSERT_TRUE(whole);
    EXPECT_GT(whole->freeBytes, 1LL << 30);
    EXPECT_LE(whole->freeBytes, whole->totalBytes);
    backend.makeFolder("d");
    files.makeFolder(below("d/inner"));
    Administrator administrator;
    constexpr __int64 kLimitBytes = __int64{64} << 20;
    administrator.setQuota(backend.uri("d"), kLimitBytes);
    test_support::writeAt(*files.openFile(below("d/a"), IIOStream::ReadWrite, nullptr), 0,
                          test_support::Bytes(1 << 20, 7));
    // The metadata servers count a little later.
    EXPECT_TRUE(comesTrue([&] {
        auto const room = files.findRoom(below("d/inner"));
        return room && room->totalBytes == kLimitBytes &&
               room->freeBytes == kLimitBytes - (__int64{1} << 20);
    }));
    EXPECT_TRUE(throwsIOError(
        CIOError::NotFound, "Cannot query the file: No such file or directory",
        {{"uri", text("absent") + "/a"}}, [&] { files.findRoom(below("absent/a")); }));
}

TEST_F(ClusterStore, AWholeFileIsLockedAmongClients) {
    make("a", "content");
    auto const first = open("a");
    auto const second = getClient(1).openFile(backend.uri("a"), IIOStream::ReadWrite, nullptr);
    auto const isRefused = [&](IStreamBase& stream, IStreamBase::LockType type) {
        return static_cast<bool>(throwsIOError(
            CIOError::AccessDenied, "The range is locked by another holder.",
            {{"uri", text("a")}, {"position", "0"}, {"length", "9223372036854775807"}},
            [&] { stream.lockRange(0, kWholeFile, type); }));
    };
    {
        auto const lock = first->lockRange(0, kWholeFile, IStreamBase::Exclusive);
        EXPECT_TRUE(isRefused(*second, IStreamBase::Shared));
        EXPECT_TRUE(isRefused(*second, IStreamBase::Exclusive));
        EXPECT_THROW(second->lockRange(1LL << 62, 1, IStreamBase::Shared), CIOError);
    }
    auto const shared = first->lockRange(0, kWholeFile, IStreamBase::Shared);
    auto const alsoShared = second->lockRange(0, kWholeFile, IStreamBase::Shared);
    EXPECT_TRUE(alsoShared);
    EXPECT_TRUE(isRefused(*second, IStreamBase::Exclusive));
}

TEST_F(ClusterStore, AFileThatIsJustMadeIsLockedByItsMaker) {
    auto const made = files.createFile(backend.uri("a"));
    auto const lock = made->lockRange(0, kWholeFile, IStreamBase::Exclusive);
    auto const other = getClient(1).openFile(backend.uri("a"), IIOStream::ReadWrite, nullptr);
    EXPECT_THROW(other->lockRange(0, kWholeFile, IStreamBase::Exclusive), CIOError);
    files.renameIfAbsent(backend.uri("a"), backend.uri("b"));
    auto const byOtherName = getClient(1).openFile(backend.uri("b"), IIOStream::ReadWrite, nullptr);
    EXPECT_THROW(byOtherName->lockRange(0, kWholeFile, IStreamBase::Shared), CIOError);
}

} // namespace

} // namespace cluster_store_test

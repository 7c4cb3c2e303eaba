#include <cstring>

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/s3/fake_bucket.h"
#include "tests/support/bytes.h"
#include "tests/support/expect_error.h"
#include "yx/lock_file.h"
#include "yx/memory_file_system.h"

namespace s3_test {
namespace {

using kelm::host::FileKind;
using kelm::host::FileStatus;
using test_support::throwsIOError;

constexpr char kReadOnlyMessage[] = "The store is for reading only.";

class BucketStore : public testing::Test {
protected:
    yx::P<yx::IIOStream> open(yx::CURI const& uri) {
        return store->openFile(uri, yx::IIOStream::ReadOnly, nullptr);
    }

    testing::AssertionResult openingFails(yx::CIOError::Code code, std::string const& message,
                                          yx::CURI const& uri) {
        return throwsIOError(code, message, {{"uri", uri.toString(true).toStdString()}},
                             [&] { open(uri); });
    }

    /// Lets the server answer all requests, or those with that method, with a refusal.
    void refuseAll(int status, std::string const& code, std::string const& method = "") {
        bucket.intervene = [status, code, method](Request const& request) {
            std::optional<Reply> reply;
            if (method.empty() || request.method == method)
                reply = refuse(status, code);
            return reply;
        };
    }

    FakeBucket bucket;
    yx::P<kelm::s3::CBucketStore> store = bucket.makeStore();
    yx::CURI const uri = FakeBucket::uri("a.vmdk");
};

TEST_F(BucketStore, ConnectsToNothingByItself) {
    EXPECT_EQ(store->resolveName(yx::CURI("S3://Disks/x/../a%2evmdk")), uri);
    EXPECT_EQ(bucket.getServer().countConnections(), 0);
}

TEST_F(BucketStore, SaysWhatIsThere) {
    bucket.put("a.vmdk", "content");
    bucket.put("folder/b.vmdk", "");
    EXPECT_TRUE(store->fileExists(uri));
    EXPECT_FALSE(store->fileExists(FakeBucket::uri("a")));
    EXPECT_FALSE(store->fileExists(FakeBucket::uri("folder")));
    EXPECT_FALSE(store->fileExists(FakeBucket::uri("a.vmdk/")));

    std::optional<FileStatus> const file = store->findStatus(uri, true);
    ASSERT_TRUE(file);
    EXPECT_EQ(file->kind, FileKind::File);
    EXPECT_EQ(file->lengthBytes, 7);
    EXPECT_EQ(file->allocatedBytes, 7);
    EXPECT_EQ(file->modifiedNanoseconds, 1767607200000000000);
    EXPECT_EQ(file->identity.store, "s3 " + bucket.settings.endpointHost + " disks");
    EXPECT_EQ(store->getOpenStatus(*open(uri)).identity, file->identity);

    for (char const* const folder : {"folder", "folder/", ""})
        EXPECT_EQ(store->findStatus(FakeBucket::uri(folder), true)->kind, FileKind::Folder)
            << folder;
    EXPECT_FALSE(store->findStatus(FakeBucket::uri("fold"), true));
    EXPECT_FALSE(store->findStatus(FakeBucket::uri("a.vmdk/"), true));
}

TEST_F(BucketStore, AnotherVersionIsAnotherFile) {
    bucket.put("a.vmdk", "content");
    bucket.put("b.vmdk", "content");
    auto const identify = [this](char const* key) {
        return store->findStatus(FakeBucket::uri(key), true)->identity;
    };
    kelm::host::FileIdentity const before = identify("a.vmdk");
    EXPECT_EQ(identify("a.vmdk"), before);
    EXPECT_NE(identify("b.vmdk"), before);
    bucket.put("a.vmdk", "changed");
    bucket.passTime();
    EXPECT_NE(identify("a.vmdk"), before);
}

TEST_F(BucketStore, WhatIsKnownOfANameCountsForAMoment) {
    bucket.put("a.vmdk", "content");
    for (int i = 0; i < 3; ++i) {
        EXPECT_TRUE(store->fileExists(uri));
        EXPECT_FALSE(store->fileExists(FakeBucket::uri("b")));
        EXPECT_EQ(open(uri)->getLength(), 7);
    }
    // The third is for the folder of the missing one.
    EXPECT_EQ(bucket.getServer().getRequests().size(), 3U);
    bucket.passTime();
    bucket.put("b", "new");
    bucket.put("a.vmdk", "changed now");
    EXPECT_TRUE(store->fileExists(FakeBucket::uri("b")));
    EXPECT_EQ(open(uri)->getLength(), 11);
    EXPECT_EQ(bucket.getServer().getRequests().size(), 5U);
}

TEST_F(BucketStore, AFolderIsListedForAllThatIsMissingThere) {
    bucket.put("f/a.vmdk", "content");
    bucket.put("f/g/a", "content");
    EXPECT_FALSE(store->fileExists(FakeBucket::uri("f/missing")));
    bucket.getServer().forgetRequests();
    for (char const* const name : {"f/1", "f/2", "f/%C3%A4", "f/a", "f/g"})
        EXPECT_FALSE(store->fileExists(FakeBucket::uri(name))) << name;
    EXPECT_FALSE(store->findStatus(FakeBucket::uri("f/1"), true));
    EXPECT_EQ(store->findStatus(FakeBucket::uri("f/g"), true)->kind, FileKind::Folder);
    EXPECT_TRUE(bucket.getServer().getRequests().empty());
    EXPECT_TRUE(store->fileExists(FakeBucket::uri("f/a.vmdk")));
    EXPECT_FALSE(store->fileExists(FakeBucket::uri("f/g/1")));
    EXPECT_EQ(bucket.getServer().getRequests().size(), 3U);
}

TEST_F(BucketStore, AFolderThatCannotBeListedAtOnceIsAskedNameByName) {
    for (char const* const key : {"a", "b", "c"})
        bucket.put(key, "content");
    for (char const* const name : {"1", "2", "3"})
        EXPECT_FALSE(store->fileExists(FakeBucket::uri(name))) << name;
    EXPECT_EQ(bucket.getServer().count("HEAD"), 3);
    EXPECT_EQ(bucket.getServer().count("GET"), 1);
}

TEST_F(BucketStore, AnUploadIsKnownAtOnce) {
    EXPECT_FALSE(store->fileExists(uri));
    kelm::host::Upload upload;
    upload.lengthBytes = 7;
    upload.read = [](__int64, void* target, int) { std::memcpy(target, "content", 7); };
    store->uploadFile(uri, upload);
    EXPECT_TRUE(store->fileExists(uri));
}

TEST_F(BucketStore, AFileThatAppearsCanBeOpenedAtOnce) {
    EXPECT_FALSE(store->fileExists(uri));
    bucket.put("a.vmdk", "content");
    EXPECT_EQ(open(uri)->getLength(), 7);
    bucket.put("a.vmdk", "another one");
    EXPECT_THROW(test_support::readAt(*open(uri), 0, 1), yx::CIOError);
    EXPECT_EQ(open(uri)->getLength(), 11);
}

TEST_F(BucketStore, StreamsOfOthersHaveNoStatusHere) {
    yx::P<yx::CMemoryFileSystem> const memory = yx::makeObject<yx::CMemoryFileSystem>();
    yx::P<yx::IIOStream> const stream =
        memory->openFile(yx::CURI("mem:///a"), yx::IIOStream::ReadWrite, nullptr);
    EXPECT_THROW(store->getOpenStatus(*stream), yx::CInvalidArgError);
    bucket.put("a.vmdk", "content");
    yx::P<yx::IIOStream> const own = open(uri);
    own->close();
    EXPECT_TRUE(throwsIOError(yx::CIOError::Closed, "The stream is closed.",
                              {{"uri", "s3://disks/a.vmdk"}}, [&] { store->getOpenStatus(*own); }));
}

TEST_F(BucketStore, ListsFoldersPageByPage) {
    for (char const* const key : {"f/a b.vmdk", "f/b+&<.vmdk", "f/c/1", "f/c/2", "f/d", "f/d/1",
                                  "f/", "f/e//x", "f/./y", "g", "f/\xc3\xa4\xff"})
        bucket.put(key, "x");
    std::vector<std::string> entries;
    for (kelm::host::FolderEntry const& entry : store->listFolder(FakeBucket::uri("f")))
        entries.push_back(entry.name + (entry.kind == FileKind::Folder ? "/" : ""));
    EXPECT_EQ(entries,
              (std::vector<std::string>{"a b.vmdk", "b+&<.vmdk", "c/", "d", "e/", "\xc3\xa4\xff"}));
    EXPECT_GT(bucket.getServer().count("GET"), 3);
    EXPECT_EQ(store->listFolder(FakeBucket::uri("")).size(), 2U);
    EXPECT_TRUE(throwsIOError(
        yx::CIOError::NotFound, "Cannot query the file: No such file or directory",
        {{"uri", "s3://disks/none"}}, [this] { store->listFolder(FakeBucket::uri("none")); }));
}

TEST_F(BucketStore, AListThatIsNoneIsAnError) {
    bucket.put("a", "x");
    test_support::Props const props{{"uri", "s3://disks/"}};
    bucket.intervene = [](Request const&) { return std::optional(Reply{.body = "<html>"}); };
    EXPECT_TRUE(throwsIOError(yx::CIOError::IOFailure,
                              "Cannot list the folder: The server's answer is no list.", props,
                              [this] { store->listFolder(FakeBucket::uri("")); }));
    bucket.intervene = [](Request const&) {
        return std::optional(Reply{.body = "<ListBucketResult><IsTruncated>true</IsTruncated>"
                                           "<NextContinuationToken>x</NextContinuationToken>"
                                           "</ListBucketResult>"});
    };
    EXPECT_TRUE(throwsIOError(yx::CIOError::IOFailure,
                              "Cannot list the folder: The server's list breaks off.", props,
                              [this] { store->listFolder(FakeBucket::uri("")); }));
}

TEST_F(BucketStore, RefusesAllChanges) {
    bucket.put("a.vmdk", "content");
    std::vector<std::function<void()>> const changes{
        [this] { store->openFile(uri, yx::IIOStream::ReadWrite, nullptr); },
        [this] { store->deleteFile(uri, true); },
        [this] { store->createFile(uri); },
        [this] { store->makeFolder(uri); },
        [this] { store->removeFolder(uri); },
        [this] { store->rename(uri, uri); },
        [this] { store->renameIfAbsent(uri, uri); },
        [this] { store->tryAddName(uri, uri); },
        [this] { store->verifyMayWriteIn(uri); },
    };
    for (std::size_t i = 0; i < changes.size(); ++i) {
        EXPECT_TRUE(throwsIOError(yx::CIOError::AccessDenied, kReadOnlyMessage,
                                  {{"uri", "s3://disks/a.vmdk"}}, changes[i]))
            << i;
    }
    EXPECT_TRUE(bucket.getServer().getRequests().empty());
    EXPECT_EQ(bucket.get("a.vmdk"), "content");
    EXPECT_NO_THROW(store->syncFolder(uri));
    EXPECT_FALSE(store->findRoom(uri));
}

TEST_F(BucketStore, NoLockFileCanBeMade) {
    try {
        yx::CLockFile const lock(store.get(), FakeBucket::uri("a.vmdk.lock"), yx::CLockFile::Shared,
                                 false, true);
        ADD_FAILURE() << "there is a lock";
    } catch (yx::CLockFileError const& error) {
        EXPECT_EQ(error.getMessage(),
                  yx::String(yx::kLockNotTakenMessagePrefix) + kReadOnlyMessage);
    }
}

TEST_F(BucketStore, SaysWhyAFileCannotBeOpened) {
    bucket.put("a.vmdk", "content");
    EXPECT_TRUE(openingFails(yx::CIOError::NotFound,
                             "Cannot open the file: No such file or directory",
                             FakeBucket::uri("b")));
    EXPECT_TRUE(openingFails(yx::CIOError::NotFound,
                             "Cannot open the file: There is no such bucket.",
                             yx::CURI("s3://none/a")));
    EXPECT_TRUE(openingFails(yx::CIOError::AccessDenied, "Cannot open the file: Is a directory",
                             FakeBucket::uri("a/")));
    for (char const* const code :
         {"InvalidAccessKeyId", "SignatureDoesNotMatch", "RequestTimeTooSkewed"}) {
        refuseAll(403, code);
        EXPECT_TRUE(openingFails(
            yx::CIOError::AccessDenied,
            std::string("Cannot open the file: The server refuses it (403 ") + code + ").", uri));
        EXPECT_THROW(store->fileExists(uri), yx::CIOError) << code;
        EXPECT_THROW(store->findStatus(uri, true), yx::CIOError) << code;
        EXPECT_THROW(store->listFolder(uri), yx::CIOError) << code;
    }
}

TEST_F(BucketStore, WhoMayNotListIsNotToldWhatIsMissing) {
    bucket.put("a.vmdk", "content");
    bucket.intervene = [this](Request const& request) {
        Reply reply = bucket.answer(request);
        bool const isList = request.path == "/disks/";
        return std::optional(reply.status == 404 || isList ? refuse(403, "AccessDenied") : reply);
    };
    EXPECT_TRUE(store->fileExists(uri));
    EXPECT_FALSE(store->fileExists(FakeBucket::uri("a.vmdk.lock")));
    EXPECT_FALSE(store->findStatus(FakeBucket::uri("a.vmdk.lock"), true));
    EXPECT_TRUE(openingFails(yx::CIOError::AccessDenied,
                             "Cannot open the file: The server refuses it (403 AccessDenied).",
                             FakeBucket::uri("b")));
}

TEST_F(BucketStore, BadSettingsAreToldWhenTheyAreNeeded) {
    store = yx::makeObject<kelm::s3::CBucketStore>(
        []() -> kelm::s3::ServerSettings {
            throw yx::CError("The settings are odd.", "", -1, yx::CProps(), nullptr);
        },
        kelm::s3::RetryPolicy());
    EXPECT_TRUE(openingFails(yx::CIOError::AccessDenied, "The settings are odd.", uri));
}

TEST_F(BucketStore, ANameThatNobodyListensOnIsAnError) {
    bucket.settings.endpointHost = "127.0.0.1:1";
    EXPECT_TRUE(openingFails(yx::CIOError::IOFailure,
                             "Cannot open the file: The server does not answer: Couldn't connect "
                             "to server.",
                             uri));
    EXPECT_EQ(bucket.waits.size(), 5U);
}

TEST_F(BucketStore, SignsWithKeys) {
    bucket.put("a b.vmdk", "content");
    bucket.settings.keys = kelm::s3::AccessKeys{"theid", "thesecret", "thetoken"};
    bucket.settings.region = "eu-west-1";
    yx::P<yx::IIOStream> const stream = open(FakeBucket::uri("a%20b.vmdk"));
    test_support::readAt(*stream, 0, 1);
    for (Request const& request : bucket.getServer().getRequests()) {
        EXPECT_EQ(request.path, "/disks/a%20b.vmdk");
        EXPECT_EQ(request.header("x-amz-security-token"), "thetoken");
        EXPECT_EQ(request.header("host"), bucket.settings.endpointHost);
        kelm::s3::SignedParts parts;
        parts.method = request.method;
        parts.escapedPath = request.path;
        parts.payloadDigest = request.header("x-amz-content-sha256");
        for (char const* const name :
             {"host", "x-amz-date", "x-amz-content-sha256", "x-amz-security-token", "range"}) {
            if (!request.header(name).empty())
                parts.headers[name] = request.header(name);
        }
        EXPECT_EQ(request.header("authorization"),
                  makeAuthorization(parts, *bucket.settings.keys, "eu-west-1"));
        EXPECT_EQ(request.header("authorization").find("thesecret"), std::string::npos);
    }
}

TEST_F(BucketStore, AChildProcessConnectsAnew) {
    bucket.put("a.vmdk", "content");
    yx::P<yx::IIOStream> const stream = open(uri);
    pid_t const child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        int wrong = 0;
        try {
            test_support::readAt(*stream, 0, 7);
            wrong |= 1;
        } catch (yx::CIOError const& error) {
            wrong |= error.getIOCode() == yx::CIOError::NotSupported ? 0 : 2;
        }
        try {
            wrong |=
                test_support::toText(test_support::readAt(*open(uri), 0, 7)) == "content" ? 0 : 4;
        } catch (yx::CError const&) {
            wrong |= 8;
        }
        ::_exit(wrong);
    }
    int status = -1;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(test_support::toText(test_support::readAt(*stream, 0, 7)), "content");
    EXPECT_EQ(bucket.getServer().countConnections(), 2);
}

/// A web server at 127.0.0.1, with files for everybody.
class WebStore : public testing::Test {
protected:
    yx::CURI uri(std::string const& path) {
        return yx::CURI(yx::String::fromUTF8("https://" + bucket.getServer().getAddress() + path));
    }

    yx::P<yx::IIOStream> open(std::string const& path) {
        return store->openFile(uri(path), yx::IIOStream::ReadOnly, nullptr);
    }

    FakeBucket bucket{TestServer::Protocol::Encrypted};
    yx::P<kelm::s3::CBucketStore> store = bucket.makeStore();
};

TEST_F(WebStore, ReadsFiles) {
    bucket.settings.keys = kelm::s3::AccessKeys{"id", "secret", ""};
    bucket.put("a.vmdk", "content");
    EXPECT_EQ(test_support::toText(test_support::readAt(*open("/disks/a.vmdk"), 2, 3)), "nte");
    EXPECT_EQ(bucket.getServer().getRequests().back().header("authorization"), "");
    EXPECT_EQ(store->findStatus(uri("/disks/a.vmdk"), true)->identity.store,
              "https " + bucket.getServer().getAddress());
    EXPECT_FALSE(store->fileExists(uri("/disks/b.vmdk")));
    EXPECT_FALSE(store->findStatus(uri("/disks/"), true));
    EXPECT_TRUE(throwsIOError(yx::CIOError::NotSupported,
                              "Folders of web servers cannot be listed.",
                              {{"uri", uri("/disks/").toString(true).toStdString()}},
                              [this] { store->listFolder(uri("/disks/")); }));
}

TEST_F(WebStore, ACertificateOfNobodyKnownIsRefused) {
    bucket.put("a.vmdk", "content");
    bucket.settings.certificatesFile.clear();
    EXPECT_TRUE(throwsIOError(
        yx::CIOError::IOFailure,
        "Cannot open the file: The server does not answer: SSL peer certificate or SSH remote key "
        "was not OK.",
        {{"uri", uri("/disks/a.vmdk").toString(true).toStdString()}},
        [this] { open("/disks/a.vmdk"); }));
    EXPECT_TRUE(bucket.waits.empty());
    EXPECT_TRUE(bucket.getServer().getRequests().empty());
}

TEST_F(WebStore, GoesWhereTheServerLeads) {
    bucket.put("a.vmdk", "content");
    bucket.intervene = [](Request const& request) {
        std::optional<Reply> reply;
        if (request.path == "/old")
            reply = Reply{.status = 302, .headers = {{"Location", "/older"}}};
        if (request.path == "/older")
            reply = Reply{.status = 308, .headers = {{"Location", "disks/a.vmdk"}}};
        return reply;
    };
    EXPECT_EQ(test_support::toText(test_support::readAt(*open("/old"), 0, 100)), "content");
}

TEST_F(WebStore, GoesToNoPlainServerAndNotInCircles) {
    test_support::Props const props{{"uri", uri("/a").toString(true).toStdString()}};
    for (char const* const place : {"http://127.0.0.1/a", "file:///etc/passwd", "", "/a"}) {
        bucket.getServer().forgetRequests();
        bucket.intervene = [place](Request const&) {
            return std::optional(Reply{.status = 301, .headers = {{"Location", place}}});
        };
        EXPECT_TRUE(throwsIOError(yx::CIOError::IOFailure,
                                  "Cannot open the file: The server leads elsewhere (301).", props,
                                  [this] { open("/a"); }))
            << place;
        EXPECT_EQ(bucket.getServer().count("HEAD"), place == std::string("/a") ? 6 : 1) << place;
    }
}

TEST_F(WebStore, IsNotUploadedTo) {
    EXPECT_TRUE(throwsIOError(yx::CIOError::AccessDenied, kReadOnlyMessage,
                              {{"uri", uri("/a").toString(true).toStdString()}},
                              [this] { store->uploadFile(uri("/a"), {}); }));
}

TEST_F(WebStore, ABucketCanBeReachedSoToo) {
    bucket.put("a.vmdk", "content");
    EXPECT_TRUE(store->fileExists(FakeBucket::uri("a.vmdk")));
}

} // namespace
} // namespace s3_test

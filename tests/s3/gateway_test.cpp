// Buckets of a real server, the gateway of a Ceph cluster, by way of the program.

#include <cstdlib>
#include <fstream>

#include <gtest/gtest.h>

#include "integrations/s3/bucket_store.h"
#include "tests/s3/local_disks.h"
#include "tests/support/expect_error.h"
#include "tests/support/running_program.h"

namespace s3_test {
namespace {

using test_support::Arguments;
using test_support::Outcome;

class Gateway : public testing::Test {
protected:
    static void SetUpTestSuite() {
        char const* const cluster = std::getenv("KELM_TEST_CLUSTER");
        char const* const script = std::getenv("KELM_CLUSTER_SCRIPT");
        if (!cluster || !script)
            return;
        test_support::RunningProgram starting("/", {script, "gateway", cluster});
        Outcome const outcome = starting.finish();
        ASSERT_EQ(outcome.status, 0) << outcome.err;
        std::ifstream settings(std::string(cluster) + "/gateway");
        for (std::string line; std::getline(settings, line);)
            s_environment[line.substr(0, line.find('='))] = line.substr(line.find('=') + 1);
        makeBucket();
    }

    void SetUp() override {
        if (s_environment.empty())
            GTEST_SKIP() << "There is no cluster; see docs/bucket.md.";
    }

    static kelm::s3::ServerSettings readSettings() {
        return kelm::s3::readServerSettings([](char const* name) -> char const* {
            auto const found = s_environment.find(name);
            return found == s_environment.end() ? nullptr : found->second.c_str();
        });
    }

    static void makeBucket() {
        yx::CURI const uri("s3://disks/");
        kelm::s3::ObjectServer server(readSettings(), {},
                                      std::make_shared<kelm::s3::Abandonment>());
        kelm::s3::ObjectRequest request;
        request.method = "PUT";
        request.location = kelm::s3::locate(uri);
        request.maxBodyBytes = 65536;
        ASSERT_EQ(server.send(request, uri).status, 200);
    }

    static yx::CURI uri(std::string const& key) {
        return yx::CURI(yx::String::fromUTF8("s3://disks/" + key));
    }

    static kelm::host::Upload makeUpload(std::string const& content) {
        kelm::host::Upload upload;
        upload.lengthBytes = static_cast<__int64>(content.size());
        upload.replacesExisting = true;
        upload.read = [&content](__int64 position, void* target, int size) {
            content.copy(static_cast<char*>(target), static_cast<std::size_t>(size),
                         static_cast<std::size_t>(position));
        };
        return upload;
    }

    static std::string readObject(kelm::s3::CBucketStore& store, yx::CURI const& name) {
        yx::P<yx::IIOStream> const stream = store.openFile(name, yx::IIOStream::ReadOnly, nullptr);
        std::string content(static_cast<std::size_t>(stream->getLength()), '\0');
        stream->read(content.data(), static_cast<int>(content.size()));
        return content;
    }

    Outcome run(Arguments const& arguments) const {
        test_support::RunningProgram program(disks.getFolder(),
                                             test_support::joined({{KELM_TOOL}, arguments}), [] {
                                                 for (auto const& [name, value] : s_environment)
                                                     ::setenv(name.c_str(), value.c_str(), 1);
                                             });
        return program.finish();
    }

    std::string runWell(Arguments const& arguments) const {
        Outcome const outcome = run(arguments);
        EXPECT_EQ(outcome.status, 0) << outcome.err;
        return outcome.out;
    }

    static inline std::map<std::string, std::string> s_environment;

    LocalDisks disks;
    yx::P<kelm::s3::CBucketStore> store =
        yx::makeObject<kelm::s3::CBucketStore>(readSettings, kelm::s3::RetryPolicy());
};

TEST_F(Gateway, TakesUploadsOfAnyLength) {
    for (std::size_t const length : {0U, 1U, 8U << 20, (8U << 20) + 1, 20U << 20}) {
        SCOPED_TRACE(length);
        std::string content(length, '\0');
        for (std::size_t i = 0; i < length; i += 1000)
            content[i] = static_cast<char>(i / 1000);
        yx::CURI const name = uri("upload%20a+b%C3%A4~");
        store->uploadFile(name, makeUpload(content));
        EXPECT_TRUE(readObject(*store, name) == content);
        kelm::host::Upload again = makeUpload(content);
        again.replacesExisting = false;
        EXPECT_TRUE(test_support::throwsIOError(
            yx::CIOError::AlreadyExists, "The file exists already.",
            {{"uri", name.toString(true).toStdString()}}, [&] { store->uploadFile(name, again); }));
    }
}

TEST_F(Gateway, NoticesAReplacedObject) {
    std::string const before(1000000, 'a');
    std::string const after(1000000, 'b');
    store->uploadFile(uri("replaced"), makeUpload(before));
    yx::P<yx::IIOStream> const stream =
        store->openFile(uri("replaced"), yx::IIOStream::ReadOnly, nullptr);
    store->uploadFile(uri("replaced"), makeUpload(after));
    EXPECT_TRUE(test_support::throwsIOError(
        yx::CIOError::IOFailure, "The object was replaced while it was read.",
        {{"uri", "s3://disks/replaced"}}, [&] { test_support::readAt(*stream, 0, 1); }));
}

TEST_F(Gateway, ListsFolders) {
    for (char const* const key : {"list/a%20b", "list/c+d&e", "list/f/g", "list/%C3%A4"})
        store->uploadFile(uri(key), makeUpload("x"));
    std::vector<std::string> names;
    for (kelm::host::FolderEntry const& entry : store->listFolder(uri("list")))
        names.push_back(entry.name);
    EXPECT_EQ(names, (std::vector<std::string>{"a b", "c+d&e", "f", "\xc3\xa4"}));
    EXPECT_THROW(store->listFolder(uri("none")), yx::CIOError);
}

TEST_F(Gateway, DisksAreReadByTheProgram) {
    for (test_support::DiskKind const& kind : test_support::allDiskKinds()) {
        // Passwords are asked for by the tests of the program.
        if (*kind.password != 0)
            continue;
        SCOPED_TRACE(kind.name);
        LocalDisks made;
        made.make(kind);
        std::string const folder = std::string("backups-") + kind.name + "/";
        for (auto const& [name, content] : made.readFiles())
            store->uploadFile(uri(folder + name), makeUpload(content));
        std::string const child = "s3://disks/" + folder + "child.vmdk";
        std::string const full = "s3://disks/" + folder + "full.vmdk";
        std::string const exported = (made.getFolder() / "exported").string();
        runWell({"export", child, exported});
        EXPECT_TRUE(LocalDisks::readFile(exported) == made.getChildImage());
        runWell({"export", "--force", full, exported});
        EXPECT_TRUE(LocalDisks::readFile(exported) == made.getFullImage());
        EXPECT_EQ(runWell({"check", child}), "");
        EXPECT_NE(runWell({"info", child}).find(full), std::string::npos);
        EXPECT_NE(runWell({"map", child}).find(" parent\n"), std::string::npos);
        EXPECT_NE(runWell({"list", "s3://disks/" + folder}).find("2 disks in 1 chain"),
                  std::string::npos);
    }
}

TEST_F(Gateway, AMissingDiskIsSaidToBeMissing) {
    Outcome const outcome = run({"info", "s3://disks/none.vmdk"});
    EXPECT_NE(outcome.status, 0);
    EXPECT_NE(outcome.err.find("The disk does not exist. (uri: s3://disks/none.vmdk)"),
              std::string::npos)
        << outcome.err;
    EXPECT_TRUE(test_support::throwsIOError(
        yx::CIOError::NotFound, "Cannot open the file: There is no such bucket.",
        {{"uri", "s3://none/a"}},
        [this] { store->openFile(yx::CURI("s3://none/a"), yx::IIOStream::ReadOnly, nullptr); }));
}

TEST_F(Gateway, WrongKeysAreRefused) {
    for (auto const& [name, code] : {std::pair("AWS_SECRET_ACCESS_KEY", "SignatureDoesNotMatch"),
                                     std::pair("AWS_ACCESS_KEY_ID", "InvalidAccessKeyId")}) {
        std::map<std::string, std::string> const before = s_environment;
        s_environment[name] = "wrong";
        yx::P<kelm::s3::CBucketStore> const stranger =
            yx::makeObject<kelm::s3::CBucketStore>(readSettings, kelm::s3::RetryPolicy());
        std::string const refusal = std::string("The server refuses it (403 ") + code + ").";
        EXPECT_TRUE(test_support::throwsIOError(
            yx::CIOError::AccessDenied, "Cannot open the file: " + refusal,
            {{"uri", "s3://disks/a"}},
            [&] { stranger->openFile(uri("a"), yx::IIOStream::ReadOnly, nullptr); }));
        Outcome const outcome = run({"info", "s3://disks/none.vmdk"});
        EXPECT_NE(outcome.status, 0);
        EXPECT_NE(outcome.err.find(refusal), std::string::npos) << outcome.err;
        EXPECT_EQ(outcome.err.find(before.at("AWS_SECRET_ACCESS_KEY")), std::string::npos);
        s_environment = before;
    }
}

} // namespace
} // namespace s3_test

// Clients that the cluster shuts out, and servers that die.

#include <functional>
#include <string>

#include <gtest/gtest.h>

#include "tests/cluster/cluster_backends.h"
#include "tests/disk/disk_history.h"
#include "tests/support/ignored_exception_capture.h"
#include "tests/support/running_program.h"

namespace test_support {
namespace {

using file_system_backends::Cluster;
using file_system_backends::getClient;
using file_system_backends::getClusterFolder;
using kelm::ceph::CCephFileSystem;
using yx::CIOError;
using yx::IIOStream;

/// Runs a command of the shell, with the cluster's folder as $1.
std::string runInShell(std::string const& command) {
    RunningProgram program(getClusterFolder(),
                           {"bash", "-ceu", command, "bash", getClusterFolder().string()});
    Outcome const outcome = program.finish();
    EXPECT_EQ(outcome.status, 0) << command << ": " << outcome.err;
    return outcome.out;
}

void runScript(std::string const& arguments) {
    runInShell(std::string(KELM_SOURCE_DIR "/tests/cluster/cluster ") + arguments);
}

/// Has the cluster end the session of the client that came last.
void evictLastClient() {
    runInShell("id=$(ceph tell mds.disks:0 client ls 2>/dev/null | python3 -c '"
               "import json, sys; print(max(s[\"id\"] for s in json.load(sys.stdin)))')\n"
               "ceph tell mds.disks:0 client evict id=$id >/dev/null 2>&1");
}

class ClusterLoss : public testing::Test {
protected:
    CIOError::Code codeOf(std::function<void()> const& action, std::string const& words) {
        try {
            action();
        } catch (CIOError const& error) {
            EXPECT_NE(error.getMessage().toStdString().find(words), std::string::npos)
                << error.what();
            EXPECT_NE(error.getParams().find("uri"), nullptr);
            return error.getIOCode();
        }
        ADD_FAILURE() << "threw nothing";
        return CIOError::Closed;
    }

    Cluster backend;
};

TEST_F(ClusterLoss, AClientThatIsShutOutIsToldSoAndWritesNothingMore) {
    IgnoredExceptionCapture const ignored;
    auto const own = yx::makeObject<CCephFileSystem>();
    auto const stream = own->openFile(backend.uri("a"), IIOStream::ReadWrite, nullptr);
    writeAt(*stream, 0, fromText("safe"));
    stream->flush();
    auto const lock = stream->lockRange(0, 1, yx::IStreamBase::Exclusive);
    writeAt(*stream, 0, fromText("lost"));
    evictLastClient();
    char const* const words = "The cluster has shut this client out.";
    for (int round = 0; round < 3; ++round)
        EXPECT_EQ(codeOf([&] { stream->flush(); }, words), CIOError::IOFailure);
    EXPECT_EQ(codeOf([&] { own->fileExists(backend.uri("b")); }, words), CIOError::IOFailure);
    EXPECT_EQ(codeOf([&] { stream->lockRange(5, 1, yx::IStreamBase::Shared); },
                     "The cluster has ended the session that held its locks."),
              CIOError::IOFailure);

    // The lock is another's to take, and what was flushed is there.
    auto const other = getClient(0).openFile(backend.uri("a"), IIOStream::ReadWrite, nullptr);
    EXPECT_TRUE(other->lockRange(0, 1, yx::IStreamBase::Exclusive));
    EXPECT_TRUE(sameBytes(fromText("safe"), readAt(*other, 0, 9)));
}

TEST_F(ClusterLoss, ADiskIsWrittenWhileAStorageServerDiesAndComesBack) {
    DiskKind const kind = kindNamed("compressed");
    yx::CURI const uri = backend.uri("disk.vmdk");
    createDisk(&getClient(0), uri, kind, yx::CURI());
    History history(&getClient(0), uri, kind, nullptr, 51);
    ASSERT_NO_FATAL_FAILURE(history.run(30));
    runScript("kill \"$1\" osd.1");
    ASSERT_NO_FATAL_FAILURE(history.run(60));
    EXPECT_TRUE(readsAs(getClient(1), uri, kind, history.model().content()));
    runScript("revive \"$1\" osd.1");
    ASSERT_NO_FATAL_FAILURE(history.run(30));
    EXPECT_TRUE(readsAs(getClient(1), uri, kind, history.model().content()));
    EXPECT_TRUE(extentsAreSound(getClient(1), uri, kind));
}

} // namespace
} // namespace test_support

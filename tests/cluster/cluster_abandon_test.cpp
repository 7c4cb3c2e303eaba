// Connections that are given up while calls wait for the cluster.

#include <atomic>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "tests/cluster/cluster_backends.h"
#include "tests/cluster/cluster_shell.h"
#include "tests/support/bytes.h"
#include "tests/support/expect_error.h"
#include "tests/support/ignored_exception_capture.h"
#include "tests/support/temp_directory.h"

namespace cluster_abandon_test {

namespace {

using cluster_shell::comesTrue;
using cluster_shell::isClusterWhole;
using cluster_shell::runScript;
using file_system_backends::Cluster;
using file_system_backends::getClient;
using file_system_backends::getClusterFolder;
using kelm::ceph::CCephFileSystem;
using test_support::fromText;
using test_support::throwsIOError;
using yx::CIOError;
using yx::IIOStream;

constexpr char kGivenUp[] = "The connection to the cluster was given up.";

/// Calls something in a thread, where it fails.
class FailingThread {
public:
    FailingThread(std::string uri, std::function<void()> const& action)
        : m_thread([this, uri, action] {
              m_hasBegun = true;
              m_failsAsItShould = static_cast<bool>(
                  throwsIOError(CIOError::IOFailure, kGivenUp, {{"uri", uri}}, action));
          }) {}

    bool hasBegun() const { return m_hasBegun; }

    /// Waits for its end.
    bool failsAsItShould() {
        m_thread.join();
        return m_failsAsItShould;
    }

private:
    std::atomic<bool> m_hasBegun{false};
    bool m_failsAsItShould = false;
    std::thread m_thread;
};

TEST(ClusterAbandon, FreesWhatWaitsForStorageServersAndWhatEndsLater) {
    test_support::IgnoredExceptionCapture const ignored;
    Cluster const backend;
    std::string const uri = backend.uri("a").toString(true).toStdString();
    auto own = yx::makeObject<CCephFileSystem>();
    auto stream = own->openFile(backend.uri("a"), IIOStream::ReadWrite, nullptr);
    test_support::writeAt(*stream, 0, fromText("safe"));
    stream->flush();
    auto other = own->openFile(backend.uri("a"), IIOStream::ReadOnly, nullptr);
    auto lock = stream->lockRange(0, 1, yx::IStreamBase::Exclusive);
    for (char const* server : {"osd.0", "osd.1", "osd.2"})
        runScript(std::string("kill \"$1\" ") + server);
    {
        // More than the client keeps of what is not written yet.
        test_support::Bytes const much(std::size_t{24} << 20, 7);
        FailingThread writer(uri, [&] {
            for (int round = 0; round < 4; ++round) {
                try {
                    test_support::writeAt(*stream, 4096, much);
                } catch (CIOError const& error) {
                    EXPECT_EQ(error.getMessage(), kGivenUp);
                }
            }
            stream->flush();
        });
        FailingThread asker(uri, [&] {
            // Written by nobody, so it is on no machine but the servers'.
            test_support::readAt(*other, 1 << 20, 10);
            own->syncFolder(backend.folder);
            throw CIOError(CIOError::IOFailure, kGivenUp, yx::CProps().add("uri", uri.c_str()),
                           nullptr);
        });
        EXPECT_TRUE(comesTrue([&] { return writer.hasBegun() && asker.hasBegun(); }));
        own->abandon();
        EXPECT_TRUE(writer.failsAsItShould());
        asker.failsAsItShould();
    }
    for (int round = 0; round < 2; ++round) {
        EXPECT_TRUE(throwsIOError(CIOError::IOFailure, kGivenUp, {{"uri", uri}},
                                  [&] { own->fileExists(backend.uri("a")); }));
        EXPECT_TRUE(
            throwsIOError(CIOError::IOFailure, kGivenUp, {{"uri", uri}}, [&] { stream->flush(); }));
    }
    lock.reset();
    stream.reset();
    other.reset();
    own.reset();
    for (char const* server : {"osd.0", "osd.1", "osd.2"})
        runScript(std::string("revive \"$1\" ") + server);
    EXPECT_TRUE(comesTrue(isClusterWhole));
}

TEST(ClusterAbandon, FreesWhatWaitsForAConnection) {
    test_support::TempDirectory const directory;
    std::ofstream(directory.path() / "ceph.conf")
        << "[global]\nmon_host = v2:127.0.0.1:1\nkeyring = "
        << (getClusterFolder() / "keyring").string() << "\n";
    std::string const former = std::getenv("CEPH_CONF");
    ::setenv("CEPH_CONF", (directory.path() / "ceph.conf").c_str(), 1);
    auto own = yx::makeObject<CCephFileSystem>();
    yx::CURI const uri("ceph://writer@disks/a");
    FailingThread asker("ceph://writer@disks/a", [&] { own->fileExists(uri); });
    EXPECT_TRUE(comesTrue([&] { return asker.hasBegun(); }));
    own->abandon();
    EXPECT_TRUE(asker.failsAsItShould());
    EXPECT_TRUE(throwsIOError(CIOError::IOFailure, kGivenUp, {{"uri", "ceph://writer@disks/a"}},
                              [&] { own->openFile(uri, IIOStream::ReadOnly, nullptr); }));
    own.reset();
    ::setenv("CEPH_CONF", former.c_str(), 1);
}

} // namespace

} // namespace cluster_abandon_test

// Clients that end without taking leave, and what they leave to those who come later.

#include <chrono>
#include <limits>
#include <string>

#include <gtest/gtest.h>

#include "tests/cluster/client_process.h"
#include "tests/cluster/cluster_backends.h"
#include "tests/cluster/cluster_shell.h"
#include "tests/support/bytes.h"
#include "tests/support/expect_error.h"

namespace cluster_reclaim_test {

namespace {

using cluster_client::ClientProcess;
using file_system_backends::Cluster;
using file_system_backends::getClient;
using kelm::ceph::CCephFileSystem;
using test_support::fromText;
using test_support::readFile;
using test_support::sameBytes;
using yx::IIOStream;
using yx::IStreamBase;

constexpr __int64 kWholeFile = std::numeric_limits<__int64>::max();

/// Far less than the 60 seconds after which the cluster misses a client, and far more than is needed.
constexpr std::chrono::seconds kLongBeforeTheClusterMissesIt(30);

class ClusterReclaim : public testing::Test {
protected:
    /// Lets a client lock a file that it has written to and flushed.
    void hold(ClientProcess& client) {
        EXPECT_EQ(client.tell("open", file), "done");
        EXPECT_EQ(client.tell("write first"), "done");
        EXPECT_EQ(client.tell("flush"), "done");
        EXPECT_EQ(client.tell("lock"), "done");
    }

    /// Takes the lock and writes, without waiting for the cluster to miss the holder.
    void takeOver(CCephFileSystem& files) {
        auto const begin = std::chrono::steady_clock::now();
        auto const stream = files.openFile(file, IIOStream::ReadWrite, nullptr);
        auto const lock = stream->lockRange(0, kWholeFile, IStreamBase::Exclusive);
        EXPECT_TRUE(lock);
        test_support::writeAt(*stream, 0, fromText("other"));
        stream->flush();
        EXPECT_LT(std::chrono::steady_clock::now() - begin, kLongBeforeTheClusterMissesIt);
    }

    Cluster backend;
    yx::CURI file = backend.uri("a");
};

TEST_F(ClusterReclaim, WhatAKilledProcessHeldIsTakenOverByANewClient) {
    ClientProcess holder;
    hold(holder);
    EXPECT_EQ(holder.tell("write lost!"), "done");
    holder.kill();
    auto const own = yx::makeObject<CCephFileSystem>();
    takeOver(*own);
    EXPECT_TRUE(sameBytes(fromText("other"), readFile(*own, backend.uri("a"))));
}

TEST_F(ClusterReclaim, WhatAKilledProcessHeldIsTakenOverByAnOldClient) {
    getClient(0).listFolder(backend.folder);
    ClientProcess holder;
    hold(holder);
    holder.kill();
    takeOver(getClient(0));
    EXPECT_TRUE(sameBytes(fromText("other"), readFile(getClient(1), backend.uri("a"))));
}

TEST_F(ClusterReclaim, WhatAKilledProcessOfAUserOfOneFolderHeldIsTakenOver) {
    try {
        getClient(0).makeFolder(yx::CURI("ceph://writer@disks/tenant"));
    } catch (yx::CIOError const& error) {
        ASSERT_EQ(error.getIOCode(), yx::CIOError::AlreadyExists);
    }
    file = yx::CURI("ceph://tenant@disks/tenant/reclaimed");
    ClientProcess holder;
    hold(holder);
    holder.kill();
    auto const own = yx::makeObject<CCephFileSystem>();
    takeOver(*own);
    own->deleteFile(file, false);
}

TEST_F(ClusterReclaim, WhatALivingProcessHoldsStaysIts) {
    ClientProcess holder;
    hold(holder);
    auto const own = yx::makeObject<CCephFileSystem>();
    auto const stream = own->openFile(backend.uri("a"), IIOStream::ReadWrite, nullptr);
    EXPECT_TRUE(test_support::throwsIOError(
        yx::CIOError::AccessDenied, "The range is locked by another holder.",
        {{"uri", backend.uri("a").toString(true).toStdString()},
         {"position", "0"},
         {"length", "9223372036854775807"}},
        [&] { stream->lockRange(0, kWholeFile, IStreamBase::Exclusive); }));
    EXPECT_EQ(holder.tell("write still"), "done");
    EXPECT_EQ(holder.tell("flush"), "done");
    EXPECT_TRUE(sameBytes(fromText("still"), readFile(*own, backend.uri("a"))));
}

TEST_F(ClusterReclaim, AHolderThatStoodStillAndWasShutOutWritesNothingMore) {
    getClient(0).listFolder(backend.folder);
    ClientProcess holder;
    hold(holder);
    EXPECT_EQ(holder.tell("write lost!"), "done");
    ASSERT_TRUE(holder.pause());
    cluster_shell::evictLastClient();
    takeOver(getClient(0));
    holder.resume();
    holder.tell("write third");
    EXPECT_NE(holder.tell("flush").find("The cluster has shut this client out."),
              std::string::npos);
    EXPECT_TRUE(sameBytes(fromText("other"), readFile(getClient(1), backend.uri("a"))));
    EXPECT_NE(holder.tell("open", backend.uri("a")), "done");
    holder.kill();
    EXPECT_TRUE(sameBytes(fromText("other"), readFile(getClient(0), backend.uri("a"))));
}

TEST_F(ClusterReclaim, AProcessThatEndsByItselfLeavesNothing) {
    {
        ClientProcess holder;
        hold(holder);
    }
    takeOver(getClient(0));
}

} // namespace

} // namespace cluster_reclaim_test

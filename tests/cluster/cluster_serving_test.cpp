// Disks of a cluster that nbdkit serves.

#ifdef KELM_NBDKIT_PLUGIN

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <memory>
#include <string>
#include <thread>

#include "tests/cluster/cluster_backends.h"
#include "tests/cluster/cluster_shell.h"
#include "tests/cluster/full_pool.h"
#include "tests/endtoend/tool_fixture.h"
#include "tests/nbdkit/client.h"
#include "tests/nbdkit/server.h"

namespace cluster_serving_test {

namespace {

using cluster_shell::comesTrue;
using cluster_shell::FullPool;
using nbdkit::Client;
using nbdkit::Outcome;
using nbdkit::Server;
using test_support::Arguments;
using test_support::joined;

constexpr std::size_t kGrainBytes = 65536;

/// More than a client caches.
constexpr std::size_t kImageBytes = std::size_t{64} << 20;

/// Has a place in the disk, so that what is written to it goes to the cluster's client at once.
constexpr std::size_t kLostGrain = 1000;

constexpr std::size_t kPartBytes = std::size_t{1} << 20;

class ClusterServing : public endtoend::ToolTest {
protected:
    ClusterServing() : m_image(makeImage(kImageBytes, 71)) {
        m_image.replace(kLostGrain * kGrainBytes, kGrainBytes, kGrainBytes, 'o');
        writeFile("image", m_image);
    }

    void importDisk(Arguments const& options) const {
        runWell(joined({{"import", "image", m_disk, "--no-digests"}, options}));
    }

    std::unique_ptr<Server> serve(Arguments const& options) const {
        return std::make_unique<Server>(folder(), joined({options, {KELM_NBDKIT_PLUGIN, m_disk}}));
    }

    /// Writes a grain and has it reach the cluster.
    void writeSafely(Client const& client, std::size_t grain, char content) {
        std::string const bytes(kGrainBytes, content);
        ASSERT_EQ(client.write(grain * kGrainBytes, bytes), 0);
        ASSERT_EQ(client.flush(), 0);
        m_image.replace(grain * kGrainBytes, kGrainBytes, bytes);
    }

    static std::string readAll(Client const& client, std::size_t position, std::size_t count) {
        std::string bytes;
        for (std::size_t done = 0; done < count; done += kPartBytes)
            bytes += client.read(position + done, std::min(kPartBytes, count - done));
        return bytes;
    }

    void expectDiskHoldsImage() const {
        writeFile("expected", m_image);
        EXPECT_EQ(runWell({"compare", "expected", m_disk}), "equal\n");
        EXPECT_EQ(runWell({"check", m_disk}), "");
    }

    file_system_backends::Cluster m_cluster;
    std::string m_disk = m_cluster.uri("disk.vmdk").toString(true).toStdString();
    std::string m_image;
};

TEST_F(ClusterServing, ADiskOnAFullPoolStaysReadableAndIsWrittenToAgainByANewServer) {
    importDisk({});
    auto server = serve({});
    {
        Client const client(server->socketPath());
        writeSafely(client, 3, 's');
        std::string const lost(kGrainBytes, 'l');
        // Again and again, so that the client has it in memory when the pool is full.
        std::atomic<bool> isFull{false};
        std::unique_ptr<FullPool> full;
        std::thread filler([&] {
            full = std::make_unique<FullPool>();
            isFull = true;
        });
        // What a client has not read yet it learns from the servers, and with it that there is no room.
        std::size_t next = 0;
        auto const isRefused = [&] {
            EXPECT_TRUE(client.read(next, kPartBytes) == m_image.substr(next, kPartBytes));
            next = (next + kPartBytes) % (kLostGrain * kGrainBytes / kPartBytes * kPartBytes);
            int const error = client.write(kLostGrain * kGrainBytes, lost);
            EXPECT_TRUE(error == 0 || error == ENOSPC) << error;
            return error == ENOSPC;
        };
        EXPECT_TRUE(comesTrue([&] { return isRefused() || isFull; }));
        filler.join();
        EXPECT_TRUE(comesTrue(isRefused));
        EXPECT_EQ(client.flush(), ENOSPC);
        Client const other(server->socketPath());
        std::size_t const behind = (kLostGrain + 1) * kGrainBytes;
        for (Client const* const reader : {&client, &other}) {
            EXPECT_TRUE(readAll(*reader, 0, kLostGrain * kGrainBytes) ==
                        m_image.substr(0, kLostGrain * kGrainBytes));
            EXPECT_TRUE(readAll(*reader, behind, kImageBytes - behind) == m_image.substr(behind));
        }
        // With room again, it stays a failure: what it was told of is lost.
        full.reset();
        EXPECT_EQ(client.flush(), ENOSPC);
    }
    ASSERT_EQ(server->stop().status, 0);
    server = serve({});
    {
        Client const again(server->socketPath());
        std::string const before = m_image.substr(kLostGrain * kGrainBytes, kGrainBytes);
        std::string const now = again.read(kLostGrain * kGrainBytes, kGrainBytes);
        EXPECT_TRUE(now == before || now == std::string(kGrainBytes, 'l'));
        m_image.replace(kLostGrain * kGrainBytes, kGrainBytes, now);
        writeSafely(again, kLostGrain + 1, 'a');
        writeSafely(again, 0, 'b');
    }
    EXPECT_EQ(server->stop().err, "");
    expectDiskHoldsImage();
}

TEST_F(ClusterServing, ACompressedDiskIsServedForReadingOnAFullPool) {
    importDisk({"--compressed"});
    auto early = serve({"-r"});
    Client const waiting(early->socketPath());
    FullPool const full;
    auto late = serve({"-r"});
    for (Server const* const server : {early.get(), late.get()}) {
        Client const client(server->socketPath());
        EXPECT_TRUE(readAll(client, 0, kImageBytes) == m_image);
    }
    EXPECT_TRUE(readAll(waiting, 0, kImageBytes) == m_image);
}

TEST_F(ClusterServing, WhatAKilledServerFlushedIsThereAndANewOneServesTheDisk) {
    importDisk({});
    auto server = serve({});
    {
        Client const client(server->socketPath());
        writeSafely(client, 3, 's');
        writeSafely(client, 100, 't');
        server->kill();
    }
    server = serve({});
    {
        Client const client(server->socketPath());
        EXPECT_TRUE(readAll(client, 0, kImageBytes) == m_image);
        writeSafely(client, 4, 'u');
    }
    EXPECT_EQ(server->stop().err, "");
    expectDiskHoldsImage();
}

} // namespace

} // namespace cluster_serving_test

#endif

// Clients that the cluster shuts out, and servers that die.

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "host/check/disk_check.h"
#include "host/disk/unfinished_disk.h"
#include "host/transfer/transfer.h"
#include "tests/cluster/client_process.h"
#include "tests/cluster/cluster_backends.h"
#include "tests/cluster/cluster_shell.h"
#include "tests/cluster/full_pool.h"
#include "tests/disk/disk_history.h"
#include "tests/support/hooked_file_system.h"
#include "tests/support/ignored_exception_capture.h"
#include "tests/support/log_capture.h"
#include "tests/support/model_rounds.h"
#include "tests/support/safe_disks.h"
#include "tests/support/temp_directory.h"

namespace test_support {
namespace {

using cluster_shell::comesTrue;
using cluster_shell::evictLastClient;
using cluster_shell::FullPool;
using cluster_shell::isClusterWhole;
using cluster_shell::runScript;
using file_system_backends::Cluster;
using file_system_backends::getClient;
using kelm::ceph::CCephFileSystem;
using yx::CIOError;
using yx::IIOStream;

/// Enough for work to be in the middle when something happens, and little enough to be stored three
/// times.
constexpr std::size_t kImageBytes = std::size_t{48} << 20;

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

    /// An image of random bytes, which is imported through `files`.
    void importImage(yx::IFileSystem* files, yx::CURI const& uri) {
        std::ofstream(image, std::ios::binary)
            .write(reinterpret_cast<char const*>(content.data()),
                   static_cast<std::streamsize>(content.size()));
        yx::P<FileGuard> const guard = yx::makeObject<FileGuard>(files, true);
        guard->keep();
        NewDisk request;
        request.sizeBytes = static_cast<__int64>(content.size());
        request.isToBeFilled = true;
        std::unique_ptr<SafeDisk> const disk = SafeDisk::create(guard.get(), uri, request);
        kelm::host::RawSource source(image.string());
        kelm::host::WorkOptions options;
        options.flushIntervalBytes = __int64{8} << 20;
        kelm::host::importRaw(source, *disk, options);
        disk->markComplete();
    }

    /// Whether a disk reads as the image, and nothing is found in it.
    bool holdsImage(yx::IFileSystem* files, yx::CURI const& uri) {
        EXPECT_EQ(kelm::host::checkDisk(files, uri, "", {},
                                        [](yx::CURI const&, std::string const& finding) {
                                            ADD_FAILURE() << finding;
                                        }),
                  0);
        SafeDisk disk(files, uri, IIOStream::ReadOnly, "");
        Bytes read(content.size());
        disk.read(0, read.data(), static_cast<int>(read.size()));
        return read == content;
    }

    Cluster backend;
    TempDirectory directory;
    std::filesystem::path image = directory.path() / "image.raw";
    Bytes content = pattern(kImageBytes, 9);
};

/// Passes everything on, and does something before some of the writes.
class StepFiles : public HookedFileSystem {
public:
    using Steps = std::map<int, std::function<void()>>;

    StepFiles(yx::IFileSystem* files, Steps steps)
        : HookedFileSystem(files,
                           [this](FileOperation& operation, Proceed const& proceed) {
                               bool const isLarge = operation.kind == FileOperation::Kind::Write &&
                                                    operation.length >= kGrainBytes;
                               if (isLarge)
                                   doNext();
                               proceed();
                           }),
          m_steps(std::move(steps)) {}

    int getWrites() const { return m_writes; }

private:
    void doNext() {
        auto const step = m_steps.find(++m_writes);
        if (step != m_steps.end())
            step->second();
    }

    Steps m_steps;
    int m_writes = 0;
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
    EXPECT_TRUE(comesTrue(isClusterWhole));
}

TEST_F(ClusterLoss, AnImportGoesOnWhileAStorageServerDiesAndComesBack) {
    auto const files = yx::makeObject<StepFiles>(
        &getClient(0), StepFiles::Steps{{5, [] { runScript("kill \"$1\" osd.1"); }},
                                        {20, [] { runScript("revive \"$1\" osd.1"); }}});
    importImage(files.get(), backend.uri("disk.vmdk"));
    ASSERT_GT(files->getWrites(), 20);
    EXPECT_TRUE(holdsImage(&getClient(1), backend.uri("disk.vmdk")));
    EXPECT_TRUE(comesTrue(isClusterWhole));
}

TEST_F(ClusterLoss, AnImportStandsStillWithoutTwoStorageServersAndGoesOnWithOne) {
    std::thread reviver;
    bool hasStoodStill = false;
    auto const files = yx::makeObject<StepFiles>(
        &getClient(0), StepFiles::Steps{{5, [&] {
                                             runScript("kill \"$1\" osd.1");
                                             runScript("kill \"$1\" osd.2");
                                             reviver = std::thread([&] {
                                                 hasStoodStill =
                                                     comesTrue(cluster_shell::standsStill);
                                                 runScript("revive \"$1\" osd.2");
                                             });
                                         }}});
    importImage(files.get(), backend.uri("disk.vmdk"));
    reviver.join();
    EXPECT_TRUE(hasStoodStill);
    EXPECT_TRUE(holdsImage(&getClient(1), backend.uri("disk.vmdk")));
    runScript("revive \"$1\" osd.1");
    EXPECT_TRUE(comesTrue(isClusterWhole));
    EXPECT_TRUE(holdsImage(&getClient(1), backend.uri("disk.vmdk")));
}

TEST_F(ClusterLoss, AnotherMetadataServerTakesOver) {
    auto const held = getClient(0).openFile(backend.uri("held"), IIOStream::ReadWrite, nullptr);
    auto const lock = held->lockRange(0, 100, yx::IStreamBase::Exclusive);
    std::string const active = cluster_shell::findActiveMetadataServer();
    auto const files = yx::makeObject<StepFiles>(
        &getClient(0), StepFiles::Steps{{5, [&] { runScript("kill \"$1\" mds." + active); }}});
    importImage(files.get(), backend.uri("disk.vmdk"));
    EXPECT_TRUE(holdsImage(&getClient(1), backend.uri("disk.vmdk")));
    std::string const next = cluster_shell::findActiveMetadataServer();
    EXPECT_FALSE(next.empty());
    EXPECT_NE(next, active);
    auto const other = getClient(1).openFile(backend.uri("held"), IIOStream::ReadWrite, nullptr);
    EXPECT_THROW(other->lockRange(50, 1, yx::IStreamBase::Shared), CIOError);
    runScript("revive \"$1\" mds." + active);
    EXPECT_TRUE(comesTrue(isClusterWhole));
}

TEST_F(ClusterLoss, AFullPoolFailsAnImportAndHarmsNothingElse) {
    IgnoredExceptionCapture const ignored;
    LogCapture const quiet;
    importImage(&getClient(0), backend.uri("whole.vmdk"));
    std::unique_ptr<FullPool> full;
    auto const files = yx::makeObject<StepFiles>(
        &getClient(0), StepFiles::Steps{{10, [&] { full = std::make_unique<FullPool>(); }}});
    yx::CURI const uri = backend.uri("disk.vmdk");
    EXPECT_EQ(codeOf([&] { importImage(files.get(), uri); }, "No space left on device"),
              CIOError::NoSpace);
    EXPECT_THROW(SafeDisk(&getClient(1), uri, IIOStream::ReadOnly, ""),
                 kelm::host::UnfinishedDiskError);
    EXPECT_TRUE(holdsImage(&getClient(1), backend.uri("whole.vmdk")));
    full.reset();
    importImage(&getClient(0), uri);
    EXPECT_TRUE(holdsImage(&getClient(1), uri));
}

TEST_F(ClusterLoss, AClientThatComesToAFullPoolReads) {
    yx::CURI const uri = backend.uri("whole.vmdk");
    importImage(&getClient(0), uri);
    FullPool const full;
    auto const own = yx::makeObject<CCephFileSystem>();
    EXPECT_TRUE(holdsImage(own.get(), uri));
}

TEST_F(ClusterLoss, WhatAKilledClientFlushedIsThere) {
    yx::CURI const uri = backend.uri("disk.vmdk");
    cluster_client::ClientProcess client;
    ASSERT_EQ(client.tell("fill", uri), "done");
    client.kill();
    auto const own = yx::makeObject<CCephFileSystem>();
    EXPECT_THROW(SafeDisk(own.get(), uri, IIOStream::ReadOnly, ""),
                 kelm::host::UnfinishedDiskError);
    kelm::host::DiskTrust trust;
    trust.unfinished = kelm::host::UnfinishedDisks::Itself;
    SafeDisk disk(own.get(), uri, IIOStream::ReadWrite, "", 1,
                  kelm::CVMDKGrainTableCache::kDefaultLimit, trust);
    EXPECT_TRUE(sameBytes(Bytes(static_cast<std::size_t>(kGrainBytes), '1'), readGrain(disk, 0)));
    writeGrain(disk, 1, Bytes(static_cast<std::size_t>(kGrainBytes), '3'));
    disk.flush();
    EXPECT_TRUE(sameBytes(Bytes(static_cast<std::size_t>(kGrainBytes), '3'), readGrain(disk, 1)));
}

/// Of those who want one disk at once, each with a client of its own.
class Contender {
public:
    Contender(yx::CURI uri, IIOStream::Access access) : m_uri(std::move(uri)), m_access(access) {}

    /// Opens the disk as soon as nobody is in the way, does something and closes it again.
    void work(std::function<void(SafeDisk&)> const& action) {
        EXPECT_TRUE(comesTrue([&] {
            try {
                SafeDisk disk(m_files.get(), m_uri, m_access, "");
                action(disk);
                return true;
            } catch (yx::CLockFileError const&) {
                return false;
            } catch (CIOError const& error) {
                if (error.getIOCode() != CIOError::AccessDenied)
                    ADD_FAILURE() << error.what();
                return false;
            }
        }));
    }

private:
    yx::P<CCephFileSystem> m_files = yx::makeObject<CCephFileSystem>();
    yx::CURI m_uri;
    IIOStream::Access m_access;
};

TEST(ClusterContention, ThreeWritersAndAReaderOfOneDiskAllSucceed) {
    constexpr int kWriters = 3;
    // A grain counts them in its bytes.
    constexpr unsigned int kMostRounds = 200;
    auto const rounds = static_cast<int>(std::min(5 * modelRounds(), kMostRounds));
    Cluster const backend;
    yx::CURI const uri = backend.uri("disk.vmdk");
    createDisk(&getClient(0), uri, DiskKind(), yx::CURI());
    auto const isEven = [](Bytes const& grain) {
        return std::ranges::all_of(grain, [&](unsigned char byte) { return byte == grain[0]; });
    };
    std::vector<std::thread> threads;
    for (int writer = 0; writer < kWriters; ++writer) {
        threads.emplace_back([&, writer] {
            Contender contender(uri, IIOStream::ReadWrite);
            for (int round = 1; round <= rounds; ++round) {
                contender.work([&](SafeDisk& disk) {
                    Bytes grain = readGrain(disk, writer);
                    EXPECT_TRUE(isEven(grain));
                    EXPECT_EQ(grain[0], round - 1);
                    std::ranges::fill(grain, static_cast<unsigned char>(round));
                    writeGrain(disk, writer, grain);
                });
            }
        });
    }
    threads.emplace_back([&] {
        Contender contender(uri, IIOStream::ReadOnly);
        for (int round = 0; round < rounds; ++round) {
            contender.work([&](SafeDisk& disk) {
                for (int writer = 0; writer < kWriters; ++writer)
                    EXPECT_TRUE(isEven(readGrain(disk, writer)));
            });
        }
    });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_FALSE(getClient(1).fileExists(backend.uri("disk.vmdk.lock")));
    SafeDisk disk(&getClient(0), uri, IIOStream::ReadOnly, "");
    for (int writer = 0; writer < kWriters; ++writer)
        EXPECT_EQ(readGrain(disk, writer)[0], rounds);
}

} // namespace
} // namespace test_support

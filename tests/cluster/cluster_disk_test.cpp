// Disks of every kind on a cluster, written by one client and read by another.

#include <gtest/gtest.h>

#include "tests/cluster/administrator.h"
#include "tests/cluster/cluster_backends.h"
#include "tests/disk/disk_history.h"
#include "tests/support/safe_disks.h"

namespace test_support {
namespace {

using file_system_backends::Cluster;
using file_system_backends::getClient;

class ClusterDisk : public testing::TestWithParam<DiskKind> {
protected:
    Cluster backend;
};

TEST_P(ClusterDisk, HistoriesReadBackThroughAnotherClient) {
    DiskKind const kind = GetParam();
    yx::CURI const uri = backend.uri("disk.vmdk");
    createDisk(&getClient(0), uri, kind, yx::CURI());
    History history(&getClient(0), uri, kind, nullptr, 41);
    ASSERT_NO_FATAL_FAILURE(history.run(100));
    EXPECT_TRUE(readsAs(getClient(1), uri, kind, history.model().content()));
    EXPECT_TRUE(extentsAreSound(getClient(1), uri, kind));
}

TEST_P(ClusterDisk, AChildIsWrittenByAnotherClientThanItsParent) {
    DiskKind const kind = GetParam();
    yx::CURI const parentURI = backend.uri("parent.vmdk");
    createDisk(&getClient(0), parentURI, kind, yx::CURI());
    History parent(&getClient(0), parentURI, kind, nullptr, 42);
    ASSERT_NO_FATAL_FAILURE(parent.run(40));
    yx::CURI const childURI = backend.uri("child.vmdk");
    createDisk(&getClient(1), childURI, kind, parentURI);
    History child(&getClient(1), childURI, kind, &parent.model(), 43);
    ASSERT_NO_FATAL_FAILURE(child.run(40));
    EXPECT_TRUE(readsAs(getClient(0), childURI, kind, child.model().content()));
}

INSTANTIATE_TEST_SUITE_P(EveryKind, ClusterDisk, testing::ValuesIn(allDiskKinds()),
                         [](testing::TestParamInfo<DiskKind> const& parameter) {
                             return std::string(parameter.param.name);
                         });

TEST(ClusterDiskSnapshot, ADiskInASnapshotIsReadAsItWas) {
    Cluster const backend;
    yx::CURI const uri = backend.uri("disk.vmdk");
    createDisk(&getClient(0), uri, DiskKind(), yx::CURI());
    History history(&getClient(0), uri, DiskKind(), nullptr, 44);
    ASSERT_NO_FATAL_FAILURE(history.run(20));
    Bytes const former = history.model().content();
    cluster_shell::Administrator administrator;
    administrator.makeSnapshot(backend.folder, "one");
    ASSERT_NO_FATAL_FAILURE(history.run(20));
    {
        SafeDisk disk(&getClient(1),
                      backend.folder << ".snap"
                                     << "one"
                                     << "disk.vmdk",
                      kReadOnly, "");
        Bytes content(former.size());
        disk.read(0, content.data(), static_cast<int>(content.size()));
        EXPECT_TRUE(sameBytes(former, content));
    }
    EXPECT_TRUE(readsAs(getClient(1), uri, DiskKind(), history.model().content()));
    administrator.removeSnapshot(backend.folder, "one");
}

TEST(ClusterDiskLock, AWriterIsAloneAndReadersShareAmongClients) {
    Cluster const backend;
    yx::CURI const uri = backend.uri("disk.vmdk");
    createDisk(&getClient(0), uri, DiskKind(), yx::CURI());
    auto const open = [&uri](int client, yx::IIOStream::Access access) {
        return yx::makeObject<kelm::CVMDKDisk>(&getClient(client), uri, access, "", 1, nullptr,
                                               nullptr);
    };
    {
        yx::P<kelm::CVMDKDisk> const writer = open(0, yx::IIOStream::ReadWrite);
        EXPECT_THROW(open(1, yx::IIOStream::ReadOnly), yx::CLockFileError);
        EXPECT_THROW(open(1, yx::IIOStream::ReadWrite), yx::CLockFileError);
    }
    yx::P<kelm::CVMDKDisk> const reader = open(0, yx::IIOStream::ReadOnly);
    EXPECT_NO_THROW(open(1, yx::IIOStream::ReadOnly));
    EXPECT_THROW(open(1, yx::IIOStream::ReadWrite), yx::CLockFileError);
}

} // namespace
} // namespace test_support

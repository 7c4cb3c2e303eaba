#pragma once

#include <filesystem>
#include <string>

#include <gtest/gtest.h>

#include "integrations/cephfs/ceph_file_system.h"

/// Folders of a cluster's file system, each empty, for tests of what file systems have in common and
/// for those of clusters. The cluster is the one that `tests/cluster/cluster run` has started; where
/// there is none, no test of the program runs.
namespace file_system_backends {

/// The folder of the cluster, where its settings are. Empty if there is none.
std::filesystem::path getClusterFolder();

/// One of two clients of the cluster, 0 or 1, as the user who may write. They are connected when
/// they are first used, and take leave at the end of the program.
kelm::ceph::CCephFileSystem& getClient(int number);

/// A folder of its own, through one client.
struct Cluster {
    static constexpr char kStreamClass[] = "CCephFileStream";

    /// Half of what a new file system lets a file have.
    static constexpr long long kLongLengthBytes = 1LL << 39;

    Cluster();

    yx::CURI uri(std::string const& name) const { return folder << yx::String::fromUTF8(name); }
    void makeFolder(std::string const& name) const;

    yx::CURI folder;
    yx::P<yx::IFileSystem> files;
};

/// The same through two clients, in turn: each file that is opened is another client's than the one
/// before.
struct TwoClients : Cluster {
    TwoClients();
};

} // namespace file_system_backends

using FileSystemBackends =
    testing::Types<file_system_backends::Cluster, file_system_backends::TwoClients>;
using LockFileBackends = FileSystemBackends;

/// Of one client: between two, who meet at each step in thousands of ways, a step can take the
/// metadata servers seconds.
using LockFileMeetingBackends = testing::Types<file_system_backends::Cluster>;

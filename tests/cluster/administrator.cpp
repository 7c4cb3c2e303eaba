#include "tests/cluster/administrator.h"

#include <cephfs/libcephfs.h>
#include <gtest/gtest.h>

namespace cluster_shell {

namespace {

constexpr mode_t kFolderMode = 0755;

std::string snapshotPath(yx::CURI const& folder, std::string const& name) {
    return Administrator::pathOf(folder) + "/.snap/" + name;
}

} // namespace

Administrator::Administrator() {
    EXPECT_EQ(ceph_create(&m_client, "admin"), 0);
    EXPECT_EQ(ceph_conf_read_file(m_client, nullptr), 0);
    EXPECT_EQ(ceph_mount(m_client, "/"), 0);
}

Administrator::~Administrator() {
    ceph_shutdown(m_client);
}

void Administrator::makeLink(std::string const& content, yx::CURI const& uri) {
    EXPECT_EQ(ceph_symlink(m_client, content.c_str(), pathOf(uri).c_str()), 0);
}

void Administrator::setMode(yx::CURI const& uri, unsigned int mode) {
    EXPECT_EQ(ceph_chmod(m_client, pathOf(uri).c_str(), mode), 0);
}

unsigned int Administrator::getMode(yx::CURI const& uri) {
    constexpr unsigned int kRights = 07777;
    struct ceph_statx status {};
    EXPECT_EQ(ceph_statx(m_client, pathOf(uri).c_str(), &status, CEPH_STATX_MODE, 0), 0);
    return status.stx_mode & kRights;
}

void Administrator::setQuota(yx::CURI const& folder, __int64 bytes) {
    std::string const text = std::to_string(bytes);
    EXPECT_EQ(ceph_setxattr(m_client, pathOf(folder).c_str(), "ceph.quota.max_bytes", text.c_str(),
                            text.size(), 0),
              0);
}

void Administrator::pinFolder(yx::CURI const& folder, int rank) {
    std::string const text = std::to_string(rank);
    EXPECT_EQ(ceph_setxattr(m_client, pathOf(folder).c_str(), "ceph.dir.pin", text.c_str(),
                            text.size(), 0),
              0);
}

void Administrator::makeSnapshot(yx::CURI const& folder, std::string const& name) {
    EXPECT_EQ(ceph_mkdir(m_client, snapshotPath(folder, name).c_str(), kFolderMode), 0);
}

void Administrator::removeSnapshot(yx::CURI const& folder, std::string const& name) {
    EXPECT_EQ(ceph_rmdir(m_client, snapshotPath(folder, name).c_str()), 0);
}

} // namespace cluster_shell

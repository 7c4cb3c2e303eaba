#include "tests/cluster/full_pool.h"

#include <string>

#include <gtest/gtest.h>

#include "tests/cluster/cluster_shell.h"

namespace cluster_shell {

namespace {

void setQuota(char const* bytes) {
    runInShell(std::string("ceph osd pool set-quota disks.data max_bytes ") + bytes +
               " 2>/dev/null");
}

bool isPoolFull() {
    return runInShell("ceph osd dump 2>/dev/null").find("full_quota") != std::string::npos;
}

} // namespace

FullPool::FullPool() {
    setQuota("1048576");
    EXPECT_TRUE(comesTrue(isPoolFull));
}

FullPool::~FullPool() {
    setQuota("0");
    EXPECT_TRUE(comesTrue([] { return !isPoolFull(); }));
}

} // namespace cluster_shell

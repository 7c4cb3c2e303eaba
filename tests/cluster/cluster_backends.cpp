#include "tests/cluster/cluster_backends.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdlib>

#include "yx/error.h"

namespace file_system_backends {

namespace {

std::array<yx::P<kelm::ceph::CCephFileSystem>, 2> clients;

/// Passes each call on to another client than the call before.
class AlternatingFileSystem : public yx::CBase, public virtual yx::IFileSystem {
public:
    yx::P<yx::IIOStream> openFile(yx::CURI const& uri, yx::IIOStream::Access access,
                                  unsigned int* options) override {
        return next().openFile(uri, access, options);
    }
    bool fileExists(yx::CURI const& uri) override { return next().fileExists(uri); }
    void deleteFile(yx::CURI const& uri, bool ignoreMissing) override {
        next().deleteFile(uri, ignoreMissing);
    }

private:
    kelm::ceph::CCephFileSystem& next() { return getClient(m_calls++ % 2); }

    std::atomic<int> m_calls{0};
};

/// No test runs without a cluster; and no client outlives the tests, since a process that ends
/// without taking leave is missed by the cluster.
class ClusterEnvironment : public testing::Environment {
public:
    void SetUp() override {
        if (getClusterFolder().empty())
            GTEST_SKIP() << "There is no cluster; see make cluster-test, which starts one.";
    }
    void TearDown() override {
        for (auto& client : clients)
            client.reset();
    }
};

[[maybe_unused]] testing::Environment* const environment =
    testing::AddGlobalTestEnvironment(new ClusterEnvironment);

} // namespace

std::filesystem::path getClusterFolder() {
    char const* const folder = std::getenv("KELM_TEST_CLUSTER");
    return folder ? folder : "";
}

kelm::ceph::CCephFileSystem& getClient(int number) {
    auto& client = clients.at(static_cast<std::size_t>(number));
    if (!client)
        client = yx::makeObject<kelm::ceph::CCephFileSystem>();
    return *client;
}

Cluster::Cluster() : files(&getClient(0)) {
    static int number = 0;
    std::string start = testing::UnitTest::GetInstance()->current_test_info()->name();
    std::ranges::replace(start, '/', '-');
    // A run before this one may have left some.
    for (bool isMade = false; !isMade;) {
        std::string const name = start + "." + std::to_string(++number);
        folder = yx::CURI("ceph://writer@disks/") << yx::String::fromUTF8(name);
        try {
            getClient(0).makeFolder(folder);
            isMade = true;
        } catch (yx::CIOError const& error) {
            if (error.getIOCode() != yx::CIOError::AlreadyExists)
                throw;
        }
    }
}

void Cluster::makeFolder(std::string const& name) const {
    getClient(0).makeFolder(uri(name));
}

TwoClients::TwoClients() {
    files = yx::makeObject<AlternatingFileSystem>();
}

} // namespace file_system_backends

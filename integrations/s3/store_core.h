#pragma once

#include <memory>

#include "integrations/s3/block_cache.h"
#include "integrations/s3/object_server.h"
#include "integrations/s3/recent_versions.h"

namespace kelm::s3 {

/// What the streams of a store share: the connections and the blocks that were read. It belongs to
/// the process that made it; in one that was forked off nothing of it may be used.
class StoreCore {
public:
    StoreCore(ServerSettings settings, RetryPolicy policy,
              std::shared_ptr<Abandonment> abandonment);

    ObjectServer& getServer() { return m_server; }
    BlockCache& getCache() { return m_cache; }
    RecentVersions& getRecentVersions() { return m_recentVersions; }

    /// Whether this process made it.
    bool isOfThisProcess() const;

    /// A process that was forked off is `yx::CIOError` `NotSupported` with "uri".
    void requireOwnProcess(yx::CURI const& uri) const;

private:
    /// 32 MiB.
    static constexpr std::size_t kMaxBlocks = 128;

    pid_t m_process;
    ObjectServer m_server;
    BlockCache m_cache;
    RecentVersions m_recentVersions;
};

} // namespace kelm::s3

#pragma once

#include <array>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <vector>

#include "integrations/s3/object_version.h"
#include "integrations/s3/store_core.h"

namespace kelm::s3 {

/// The bytes of one version of an object, as far as somebody asks for them. Shared by all streams
/// on it.
///
/// Asks for whole blocks of `kBlockBytes`, and where reading goes on behind what was asked for
/// last, for more at once: up to `kMaxRequestBytes`. A block is asked for once, however many
/// threads wait for it. Serves any number of threads, of the process that made it; in another one
/// reading is `yx::CIOError` `NotSupported`.
class ObjectContent {
public:
    static constexpr int kMaxRequestBytes = 4 * 1024 * 1024;

    ObjectContent(std::shared_ptr<StoreCore> core, ObjectLocation location, ObjectVersion version);
    ObjectContent(ObjectContent const&) = delete;
    ObjectContent& operator=(ObjectContent const&) = delete;
    ~ObjectContent();

    ObjectLocation const& getLocation() const { return m_location; }
    ObjectVersion const& getVersion() const { return m_version; }
    StoreCore& getCore() const { return *m_core; }

    /// Reads up to `sizeBytes` bytes; fewer only at the end. Returns the count. Errors have `uri`
    /// as "uri":
    ///
    /// - An object that was replaced since: `IOFailure`, "The object was replaced while it was
    ///   read."
    /// - A server that gives the whole object where a part was asked for: `NotSupported`.
    /// - Another part than was asked for: `IOFailure`.
    /// - What `makeAnswerError` and `ObjectServer` say.
    int read(__int64 position, void* target, int sizeBytes, yx::CURI const& uri);

private:
    struct Range {
        __int64 beginBlock;
        __int64 endBlock;
    };

    /// Reading that goes on: where the next request is expected, and how many blocks the last had.
    struct Run {
        __int64 nextBlock = -1;
        __int64 blocks = 0;
    };

    class Fetch;

    BlockCache::Block getBlock(__int64 block, __int64 lastWanted, yx::CURI const& uri);
    Range plan(__int64 block, __int64 lastWanted);
    bool isBeingFetched(__int64 block) const;
    std::string request(__int64 begin, __int64 end, yx::CURI const& uri);
    void verifyPart(HTTPAnswer const& answer, __int64 begin, __int64 end,
                    yx::CURI const& uri) const;

    static constexpr std::size_t kRuns = 8;
    static constexpr __int64 kMaxBlocksOfRequest = kMaxRequestBytes / kBlockBytes;

    std::shared_ptr<StoreCore> m_core;
    ObjectLocation const m_location;
    ObjectVersion const m_version;
    __int64 const m_number;

    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::vector<Range> m_fetches;
    std::array<Run, kRuns> m_runs;
    std::size_t m_oldestRun = 0;
};

} // namespace kelm::s3

#include "integrations/s3/object_content.h"

#include <algorithm>
#include <cstring>

#include "integrations/s3/http_status.h"
#include "integrations/s3/server_error.h"
#include "yx/internal/stream_error.h"

namespace kelm::s3 {

/// Marks blocks as being fetched for as long as it lives. The mutex is held when it is made, and
/// not when it ends.
class ObjectContent::Fetch {
public:
    Fetch(ObjectContent& content, Range range) : m_content(content), m_range(range) {
        m_content.m_fetches.push_back(range);
    }
    Fetch(Fetch const&) = delete;
    Fetch& operator=(Fetch const&) = delete;

    ~Fetch() {
        {
            std::lock_guard const guard(m_content.m_mutex);
            std::erase_if(m_content.m_fetches, [this](Range const& range) {
                return range.beginBlock == m_range.beginBlock;
            });
        }
        m_content.m_changed.notify_all();
    }

private:
    ObjectContent& m_content;
    Range m_range;
};

ObjectContent::ObjectContent(std::shared_ptr<StoreCore> core, ObjectLocation location,
                             ObjectVersion version)
    : m_core(std::move(core)),
      m_location(std::move(location)),
      m_version(std::move(version)),
      m_number(m_core->getCache().makeObjectNumber()) {}

ObjectContent::~ObjectContent() {
    if (m_core->isOfThisProcess())
        m_core->getCache().remove(m_number);
}

int ObjectContent::read(__int64 position, void* target, int sizeBytes, yx::CURI const& uri) {
    m_core->requireOwnProcess(uri);
    __int64 const left = std::max<__int64>(m_version.lengthBytes - position, 0);
    auto const count = static_cast<int>(std::min<__int64>(sizeBytes, left));
    for (int done = 0; done < count;) {
        __int64 const next = position + done;
        BlockCache::Block const block =
            getBlock(next / kBlockBytes, (position + count - 1) / kBlockBytes, uri);
        auto const offset = static_cast<std::size_t>(next % kBlockBytes);
        std::size_t const bytes =
            std::min(block->size() - offset, static_cast<std::size_t>(count - done));
        std::memcpy(static_cast<char*>(target) + done, block->data() + offset, bytes);
        done += static_cast<int>(bytes);
    }
    return count;
}

BlockCache::Block ObjectContent::getBlock(__int64 block, __int64 lastWanted, yx::CURI const& uri) {
    BlockCache& cache = m_core->getCache();
    std::unique_lock lock(m_mutex);
    while (true) {
        if (BlockCache::Block found = cache.find(m_number, block))
            return found;
        if (!isBeingFetched(block))
            break;
        m_changed.wait(lock);
    }
    Range const range = plan(block, lastWanted);
    Fetch const fetch(*this, range);
    lock.unlock();
    std::string const part =
        request(range.beginBlock * kBlockBytes,
                std::min(range.endBlock * kBlockBytes, m_version.lengthBytes), uri);
    BlockCache::Block first;
    // The first one last, so that it is the last to give way.
    for (__int64 index = range.endBlock - 1; index >= range.beginBlock; --index) {
        auto const offset = static_cast<std::size_t>((index - range.beginBlock) * kBlockBytes);
        first = std::make_shared<std::string const>(part, offset, kBlockBytes);
        cache.add(m_number, index, first);
    }
    return first;
}

/// What to ask for, beginning with a block that is not here.
ObjectContent::Range ObjectContent::plan(__int64 block, __int64 lastWanted) {
    Run* run = std::ranges::find_if(m_runs, [block](Run const& known) {
        return block >= known.nextBlock && block - known.nextBlock < known.blocks;
    });
    bool const goesOn = run != m_runs.end();
    if (!goesOn) {
        run = &m_runs[m_oldestRun];
        m_oldestRun = (m_oldestRun + 1) % kRuns;
    }
    __int64 const ahead = goesOn ? 2 * run->blocks : 1;
    __int64 const blocks = std::min(std::max(ahead, lastWanted - block + 1), kMaxBlocksOfRequest);
    __int64 const endOfObject = (m_version.lengthBytes + kBlockBytes - 1) / kBlockBytes;
    __int64 end = block + 1;
    while (end < std::min(block + blocks, endOfObject) && !isBeingFetched(end) &&
           !m_core->getCache().find(m_number, end))
        ++end;
    *run = {end, blocks};
    return {block, end};
}

bool ObjectContent::isBeingFetched(__int64 block) const {
    return std::ranges::any_of(m_fetches, [block](Range const& range) {
        return block >= range.beginBlock && block < range.endBlock;
    });
}

std::string ObjectContent::request(__int64 begin, __int64 end, yx::CURI const& uri) {
    ObjectRequest request;
    request.location = m_location;
    request.beginning = kCannotRead;
    request.maxBodyBytes = static_cast<std::size_t>(end - begin);
    request.headers["accept-encoding"] = "identity";
    request.headers["range"] = "bytes=" + std::to_string(begin) + "-" + std::to_string(end - 1);
    if (m_version.hasStrongTag())
        request.headers["if-match"] = m_version.entityTag;
    else if (!m_version.lastModified.empty())
        request.headers["if-range"] = m_version.lastModified;
    HTTPAnswer answer = m_core->getServer().send(request, uri);
    if (answer.status == kPreconditionFailed || answer.status == kRangeNotSatisfiable ||
        (isSuccess(answer.status) && m_version.differsFrom(answer))) {
        // Who opens it again gets the new one.
        m_core->getRecentVersions().remove(m_location);
        throwReplaced(uri);
    }
    if (!isSuccess(answer.status))
        throw makeAnswerError(kCannotRead, answer, uri);
    verifyPart(answer, begin, end, uri);
    return std::move(answer.body);
}

/// Refuses an answer of success that is not exactly the part that was asked for.
void ObjectContent::verifyPart(HTTPAnswer const& answer, __int64 begin, __int64 end,
                               yx::CURI const& uri) const {
    std::string const length = std::to_string(m_version.lengthBytes);
    std::string const part = "bytes " + std::to_string(begin) + "-" + std::to_string(end - 1) + "/";
    std::string const& given = answer.header("content-range");
    bool const isWhole = begin == 0 && end == m_version.lengthBytes;
    if (answer.status != kPartialContent && !(isWhole && !answer.isTooLong)) {
        throw yx::CIOError(yx::CIOError::NotSupported,
                           yx::String(kCannotRead) + "The server does not give parts of objects.",
                           yx::detail::makeUriProps(uri), nullptr);
    }
    if (answer.status == kPartialContent && given != part + length && given != part + "*") {
        // Another length in all is that of another object.
        if (given.starts_with(part))
            throwReplaced(uri);
        throw makeServerError(
            kCannotRead, "The server gives another part of the object than was asked for.", uri);
    }
    if (answer.isTooLong || answer.body.size() != static_cast<std::size_t>(end - begin))
        throw makeServerError(kCannotRead, "The server gives another length than it was asked for.",
                              uri);
}

} // namespace kelm::s3

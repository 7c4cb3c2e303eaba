#include "integrations/s3/store_core.h"

#include <unistd.h>

#include "yx/error.h"
#include "yx/internal/stream_error.h"

namespace kelm::s3 {

StoreCore::StoreCore(ServerSettings settings, RetryPolicy policy,
                     std::shared_ptr<Abandonment> abandonment)
    : m_process(::getpid()),
      m_server(std::move(settings), std::move(policy), std::move(abandonment)),
      m_cache(kMaxBlocks) {}

bool StoreCore::isOfThisProcess() const {
    return m_process == ::getpid();
}

void StoreCore::requireOwnProcess(yx::CURI const& uri) const {
    if (isOfThisProcess())
        return;
    throw yx::CIOError(
        yx::CIOError::NotSupported,
        "The connection to the server belongs to the process that this one was forked from.",
        yx::detail::makeUriProps(uri), nullptr);
}

} // namespace kelm::s3

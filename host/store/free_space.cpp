#include "host/store/free_space.h"

#include <limits>

#include "host/store/stores.h"

namespace kelm::host {

std::optional<__int64> getFreeBytes(yx::CURI const& folder) {
    IStore* const store = findStore(folder);
    std::optional<StoreRoom> const room = store ? store->findRoom(folder) : std::nullopt;
    return room ? std::optional<__int64>(room->freeBytes) : std::nullopt;
}

__int64 getMaxFileLengthBytes(yx::CURI const& uri) {
    IStore* const store = findStore(uri);
    return store ? store->getMaxFileLengthBytes(uri) : std::numeric_limits<__int64>::max();
}

} // namespace kelm::host

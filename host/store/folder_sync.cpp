#include "host/store/folder_sync.h"

#include "host/store/stores.h"

namespace kelm::host {

void syncFolder(yx::CURI const& folder) {
    if (IStore* const store = findStore(folder))
        store->syncFolder(folder);
}

} // namespace kelm::host

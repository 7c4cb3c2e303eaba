#include "host/store/folder_access.h"

#include "host/store/stores.h"

namespace kelm::host {

void verifyMayWriteInFolderOf(yx::CURI const& file) {
    if (IStore* const store = findStore(file))
        store->verifyMayWriteIn(file.getParent());
}

} // namespace kelm::host

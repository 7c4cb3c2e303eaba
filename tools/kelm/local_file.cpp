#include "tools/kelm/local_file.h"

#include "host/store/stores.h"
#include "host/system/name_text.h"
#include "tools/kelm/errors.h"

namespace kelm::tool {

void verifyIsOnThisMachine(char const* what, std::string const& argument) {
    if (!host::isStoreURI(argument))
        return;
    throw UsageError(std::string(what) +
                     " must lie on this machine, not in a store: " + host::printable(argument));
}

} // namespace kelm::tool

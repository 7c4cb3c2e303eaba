#include "host/system/machine_name.h"

#include <climits>

#include <unistd.h>

namespace kelm::host {

std::string getMachineName() {
    char name[HOST_NAME_MAX + 1] = {};
    return ::gethostname(name, HOST_NAME_MAX) == 0 ? name : "";
}

} // namespace kelm::host

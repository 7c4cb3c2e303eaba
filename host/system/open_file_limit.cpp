#include "host/system/open_file_limit.h"

#include <sys/resource.h>

namespace kelm::host {

void raiseOpenFileLimit() {
    struct rlimit limit = {};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur == limit.rlim_max)
        return;
    limit.rlim_cur = limit.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &limit);
}

} // namespace kelm::host

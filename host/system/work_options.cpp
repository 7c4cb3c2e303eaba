#include "host/system/work_options.h"

#include <algorithm>
#include <thread>

namespace kelm::host {

int countThreads(WorkOptions const& options) {
    if (options.threads > 0)
        return options.threads;
    return std::max(1, static_cast<int>(std::thread::hardware_concurrency()));
}

} // namespace kelm::host

#pragma once

#include "host/system/cancel.h"
#include "host/system/progress.h"

namespace kelm::host {

/// How long work is to go about its task, whatever that is: transfers, checks, comparisons.
struct WorkOptions {
    /// Workers that compress and decompress; 0 for as many as the machine has cores.
    int threads = 0;

    /// Called with how far the work has come; may be empty.
    ProgressCallback progress;

    /// May be null. When it is set, the work ends with `CancelledError`.
    CancelFlag const* cancel = nullptr;
};

/// How many workers these options ask for.
int countThreads(WorkOptions const& options);

} // namespace kelm::host

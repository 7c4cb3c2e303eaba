#pragma once

#include "host/system/cancel.h"
#include "host/system/progress.h"

namespace kelm::host {

/// What every long piece of work lets its caller choose: transfers, checks and comparisons alike.
struct WorkOptions {
    /// How many threads compress and decompress; 0 for one per core.
    int threads = 0;

    /// Receives the progress. May be empty.
    ProgressCallback progress;

    /// Once this flag is set, the work throws `CancelledError`. May be null.
    CancelFlag const* cancel = nullptr;
};

/// How many threads these options ask for; at least 1.
int countThreads(WorkOptions const& options);

} // namespace kelm::host

#pragma once

#include "host/system/cancel.h"
#include "host/system/progress.h"
#include "yx/base.h"

namespace kelm::host {

class TransferMeter;

/// What every long piece of work lets its caller choose: transfers, checks and comparisons alike.
struct WorkOptions {
    /// How many threads compress and decompress; 0 for one per core.
    int threads = 0;

    /// Receives the progress. May be empty.
    ProgressCallback progress;

    /// Once this flag is set, the work throws `CancelledError`. May be null.
    CancelFlag const* cancel = nullptr;

    /// Counts what is read and stored, and holds it to a rate. May be null.
    TransferMeter* meter = nullptr;

    /// An import brings what it has stored to the device whenever it is so much; what a kill or a
    /// power cut makes it lose is no more. The device is waited for then, so less costs time.
    __int64 flushIntervalBytes = __int64{2} << 30;
};

/// How many threads these options ask for; at least 1.
int countThreads(WorkOptions const& options);

} // namespace kelm::host

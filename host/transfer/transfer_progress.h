#pragma once

#include "host/system/work_options.h"

namespace kelm::host {

/// The progress of a transfer, and its cancellation: what every transfer does after each grain. For
/// the one thread that owns the disks, not for workers.
class TransferProgress {
public:
    /// `totalBytes` is the size of all that is to be done, -1 if that is not known. `options` need
    /// not outlive this object, but its cancel flag must.
    TransferProgress(WorkOptions const& options, __int64 totalBytes);

    /// Reports that `doneBytes` of the whole are done. What is reported never falls, although
    /// reading runs ahead of writing and both report. Throws `CancelledError` if the transfer is
    /// cancelled.
    void advanceTo(__int64 doneBytes);

    /// Tells the meter of the options, if there is one, that so many bytes have been read from what
    /// is copied; waits, and throws `CancelledError`, as that says.
    void addRead(__int64 bytes);

    /// The same for content that has been stored.
    void addStored(__int64 bytes);

    /// Reports the end; `doneBytes` is the size of the whole.
    void finish(__int64 doneBytes);

private:
    ProgressThrottle m_throttle;
    CancelFlag const* m_cancel;
    TransferMeter* m_meter;
    __int64 m_totalBytes;
    __int64 m_doneBytes = 0;
};

} // namespace kelm::host

#pragma once

#include <functional>
#include <mutex>
#include <vector>

#include "host/transfer/export_run.h"

namespace kelm::host {

/// The writes of the workers of an export to one file. A file takes one write at a time: who comes
/// meanwhile waits in the system, and burns processor time there. Here a worker that finds another
/// one writing leaves its run, decodes the next, and writes both later; only with several runs left
/// it waits.
class EarlyWrites {
public:
    /// Writes a run to the file. Called on any thread, but by one at a time.
    using Write = std::function<void(ExportRun const& run)>;

    /// How many runs a worker leaves.
    static constexpr std::size_t kMaxLeft = 2;

    EarlyWrites(int workerCount, Write write);

    /// On the thread of a worker: writes the runs that it has left and this one, or leaves this
    /// one too. `run` must stay as it is until `finish`. Throws what writing any of them throws;
    /// the run that failed is left.
    void write(ExportRun const& run, int worker);

    /// On the thread that owns the runs, once `write` has returned or thrown: returns when the run is
    /// written, which it may have to be done here. Throws what that throws.
    void finish(ExportRun const& run);

private:
    using Left = std::vector<ExportRun const*>;

    void writeLeft(int worker);
    ExportRun const* findFirst(int worker);
    bool isLeft(ExportRun const& run);
    void remove(ExportRun const& run);

    Write m_write;

    /// Held while writing, and by whoever removes a run. Taken before `m_listMutex`.
    std::mutex m_fileMutex;

    /// For the lists alone, so that leaving a run takes no time.
    std::mutex m_listMutex;

    /// The runs that are left, by worker, oldest first.
    std::vector<Left> m_left;
};

} // namespace kelm::host

#pragma once

#include <optional>

#include "host/system/worker_pipeline.h"
#include "host/transfer/early_writes.h"
#include "host/transfer/image_writer.h"
#include "host/transfer/unpreparer.h"
#include "host/transfer/written_grain_reader.h"

namespace kelm::host {

/// The export of a disk whose grains are compressed or enciphered, with the work on them and the
/// writing on several threads. Writing takes about half as long as decoding, and one thread could
/// not keep up with it. For `exportRaw`.
class CodedExport {
public:
    /// Starts the workers; see `OrderedWorkers` for what that may throw. What is given must outlive
    /// the object. `threads` is at least 1.
    CodedExport(SafeDisk& disk, ImageWriter& writer, int threads, TransferProgress& progress);

    /// Writes all grains of the disk, and leaves it to the caller to finish the image. An error of a
    /// grain has its place, as `addGrainPlace` says.
    void run();

private:
    bool fill(ExportRun& run);
    bool findNext();
    void decode(ExportRun& run, int worker);
    void write(ExportRun const& run);
    ExportRun& takeOldest();
    void drain(ExportRun& run);

    SafeDisk& m_disk;
    ImageWriter& m_writer;
    TransferProgress& m_progress;
    Unpreparer m_unpreparer;
    WrittenGrainReader m_reader;

    /// How many grains a unit of the image has, and a run at most.
    __int64 m_grainsPerUnit;

    /// A grain that was found and belongs to the next run.
    std::optional<__int64> m_foundGrainIndex;

    EarlyWrites m_earlyWrites;

    /// Ends before what its workers use.
    WorkerPipeline<ExportRun> m_pipeline;
};

} // namespace kelm::host

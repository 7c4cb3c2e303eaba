#include "host/transfer/coded_export.h"

#include <algorithm>
#include <array>
#include <cassert>

#include "host/transfer/grain_pipeline.h"
#include "host/transfer/grain_place.h"
#include "host/transfer/plain_grains.h"

namespace kelm::host {

namespace {

/// So that no worker runs dry while the others' runs are waited for.
constexpr __int64 kRunsPerThread = 4;

__int64 countGrainsPerUnit(__int64 grainSizeBytes) {
    return std::clamp<__int64>(ExportRun::kUnitBytes / grainSizeBytes, 1, ExportRun::kMaxGrains);
}

/// As many grains as a `GrainPipeline` has.
int calcRunCount(__int64 grainSizeBytes, int threads) {
    __int64 const grains = GrainPipeline::calcItemCount(grainSizeBytes, threads);
    __int64 const runs = grains / countGrainsPerUnit(grainSizeBytes);
    __int64 const fewest = std::min(grains, (threads + 1LL) * kRunsPerThread);
    return static_cast<int>(std::max(runs, fewest));
}

} // namespace

CodedExport::CodedExport(SafeDisk& disk, ImageWriter& writer, int threads,
                         TransferProgress& progress)
    : m_disk(disk),
      m_writer(writer),
      m_progress(progress),
      m_unpreparer(disk, threads),
      m_reader(disk, progress, writer.getImageBytes()),
      m_grainsPerUnit(countGrainsPerUnit(disk.getGrainSizeBytes())),
      m_earlyWrites(threads, [this](ExportRun const& run) { write(run); }),
      m_pipeline(threads, calcRunCount(disk.getGrainSizeBytes(), threads),
                 [this](ExportRun& run, int worker) {
                     decode(run, worker);
                     if (m_writer.takesOneWriteAtATime())
                         m_earlyWrites.write(run, worker);
                     else
                         write(run);
                 }) {
    assert(threads > 0);
}

bool CodedExport::findNext() {
    __int64 grainIndex = 0;
    if (!m_foundGrainIndex && m_reader.findNext(grainIndex))
        m_foundGrainIndex = grainIndex;
    return m_foundGrainIndex.has_value();
}

bool CodedExport::fill(ExportRun& run) {
    run.items.resize(static_cast<std::size_t>(m_grainsPerUnit));
    run.count = 0;
    while (run.count < run.items.size() && findNext()) {
        bool const isOfNextUnit = run.count > 0 && *m_foundGrainIndex / m_grainsPerUnit !=
                                                       run.items[0].grainIndex / m_grainsPerUnit;
        if (isOfNextUnit)
            break;
        GrainItem& item = run.items[run.count++];
        item.grainIndex = *m_foundGrainIndex;
        m_foundGrainIndex.reset();
        m_unpreparer.read(item);
        m_progress.addRead(item.input->getUsed());
    }
    return run.count > 0;
}

void CodedExport::decode(ExportRun& run, int worker) {
    for (run.decodedCount = 0; run.decodedCount < run.count; ++run.decodedCount) {
        GrainItem& item = run.items[run.decodedCount];
        yx::P<GrainItem::Buffer> const plain = m_unpreparer.getPlain(item, worker);
        if (!isZeroGrain(*plain))
            item.result = plain;
    }
}

void CodedExport::write(ExportRun const& run) {
    std::array<ImageWriter::Grain, ExportRun::kMaxGrains> grains{};
    std::size_t count = 0;
    __int64 firstIndex = 0;
    for (std::size_t i = 0; i < run.count; ++i) {
        GrainItem const& item = run.items[i];
        if (!item.result)
            continue;
        if (count > 0 && item.grainIndex != firstIndex + static_cast<__int64>(count)) {
            m_writer.writeEarly(firstIndex, {grains.data(), count});
            count = 0;
        }
        if (count == 0)
            firstIndex = item.grainIndex;
        grains[count++] = item.result.get();
    }
    if (count > 0)
        m_writer.writeEarly(firstIndex, {grains.data(), count});
}

ExportRun& CodedExport::takeOldest() {
    try {
        return m_pipeline.takeOldest();
    } catch (yx::CIOError& error) {
        ExportRun const& run = m_pipeline.getTaken();
        if (error.getIOCode() == yx::CIOError::CorruptData && run.decodedCount < run.count)
            addGrainPlace(error, m_disk, run.items[run.decodedCount].grainIndex);
        throw;
    }
}

void CodedExport::drain(ExportRun& run) {
    m_earlyWrites.finish(run);
    for (std::size_t i = 0; i < run.count; ++i) {
        GrainItem& item = run.items[i];
        m_writer.writeLate(item.grainIndex, item.result.get());
        if (item.result)
            m_progress.addStored(item.result->getUsed());
        m_progress.advanceTo(item.grainIndex * m_disk.getGrainSizeBytes());
        item.result.reset();
    }
}

void CodedExport::run() {
    bool more = true;
    while (more || m_pipeline.isBusy()) {
        ExportRun* const free = more ? m_pipeline.getFree() : nullptr;
        if (!free) {
            drain(takeOldest());
            m_pipeline.recycle();
            continue;
        }
        more = fill(*free);
        if (more) {
            m_writer.beginEarly();
            m_pipeline.submit();
        }
    }
}

} // namespace kelm::host

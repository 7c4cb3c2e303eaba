#include "host/check/grain_check.h"

#include <algorithm>
#include <cassert>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include "host/check/check_errors.h"
#include "host/check/finding_fold.h"
#include "host/system/worker_pipeline.h"
#include "kelm/format/constants.h"

namespace kelm::host {

namespace {

using Buffer = yx::TBuffer<unsigned char>;

/// A grain, and the extent that holds it.
struct GrainInExtent {
    DiskExtent const* extent = nullptr;
    CheckedThing thing;
};

/// A grain whose record is decoded on a worker thread.
struct CheckedGrain {
    GrainInExtent grain;
    yx::P<Buffer> record = yx::makeObject<Buffer>();
    yx::P<Buffer> plain = yx::makeObject<Buffer>();
};

using GrainDecoders = WorkerPipeline<CheckedGrain>;

/// Keeps the workers supplied with the grains of one disk, and reports what they find in order.
class GrainCheck {
public:
    GrainCheck(SafeDisk& disk, WorkOptions const& options, FindingCallback const& report,
               KnownGrains const& known)
        : m_disk(disk),
          m_cancel(options.cancel),
          m_throttle(options.progress),
          m_report([this, &report](std::string const& text) { report(m_reported->uri, text); }),
          m_fold(m_report),
          m_known(known) {
        if (disk.getDisk().getCompressed())
            startWorkers(countThreads(options));
    }

    void run() {
        try {
            checkAllGrains();
        } catch (CancelledError const&) {
            m_fold.flush();
            throw;
        }
        m_fold.flush();
        m_throttle.report(m_disk.getSizeBytes(), m_disk.getSizeBytes());
    }

private:
    /// Neighbouring grains of one extent that cannot be looked up, all for the same reason.
    struct Unreachable {
        DiskExtent const* extent;
        __int64 firstIndex;
        __int64 endIndex;
        ByteRange bytes;
        std::string reason;
    };

    void checkAllGrains() {
        std::vector<DiskExtent> const& extents = m_disk.listExtents();
        m_numbersAreUnique =
            std::all_of(extents.begin(), extents.end(), [this](DiskExtent const& extent) {
                return grainSizeOf(extent) == m_disk.getGrainSizeBytes();
            });
        for (DiskExtent const& extent : extents) {
            __int64 const grainSizeBytes = grainSizeOf(extent);
            __int64 const tableBytes = grainSizeBytes * kGrainTableEntryCount;
            for (__int64 start = extent.startBytes; start < extent.endBytes; start += tableBytes) {
                checkTable(extent, {start, std::min(extent.endBytes, start + tableBytes)},
                           grainSizeBytes);
            }
        }
        drainAll();
        reportUnreachable();
    }

    /// The grain size of an extent's file; that of the disk if the file does not tell, which the
    /// first look at a grain then finds.
    __int64 grainSizeOf(DiskExtent const& extent) {
        __int64 grainSizeBytes = m_disk.getGrainSizeBytes();
        if (extent.getSizeBytes() > 0)
            findingOf(
                [&] { grainSizeBytes = m_disk.getFileGrain(extent.startBytes).wholeSizeBytes; });
        return grainSizeBytes;
    }

    void startWorkers(int threads) {
        for (int i = 0; i < threads; ++i)
            m_preparers.push_back(m_disk.getDisk().createDataPreparer());
        // A record can be slightly larger than its plain grain.
        __int64 const grainSizeBytes = m_disk.getGrainSizeBytes();
        __int64 const itemBytes = 2 * (grainSizeBytes + grainSizeBytes / 16 + kSectorSizeBytes);
        m_decoders = std::make_unique<GrainDecoders>(
            threads, OrderedWorkers::calcSlotCount(itemBytes, threads),
            [this](CheckedGrain& grain, int worker) {
                m_preparers[static_cast<std::size_t>(worker)]->unprepareGrainData(
                    grain.record.get(), grain.plain.get());
            });
    }

    /// Checks the grains of one table. If one of them cannot be looked up, none after it can.
    void checkTable(DiskExtent const& extent, ByteRange const& bytes, __int64 grainSizeBytes) {
        __int64 index =
            extent.getStartGrainIndex() + (bytes.startBytes - extent.startBytes) / grainSizeBytes;
        for (__int64 position = bytes.startBytes; position < bytes.endBytes;
             position += grainSizeBytes) {
            if (m_cancel)
                m_cancel->check();
            m_throttle.report(position, m_disk.getSizeBytes());
            bool isHere = false;
            auto const lookUp = [&] { isHere = isGrainHere(position); };
            auto failure = findingOf(lookUp);
            // Tables are read in runs. A bad one spoils those after it in its run, but those before
            // it have been read and are found the second time.
            if (failure)
                failure = findingOf(lookUp);
            if (failure) {
                __int64 const count =
                    (bytes.endBytes - position + grainSizeBytes - 1) / grainSizeBytes;
                noteUnreachable(
                    {&extent, index, index + count, {position, bytes.endBytes}, *failure});
                return;
            }
            __int64 const endBytes = std::min(position + grainSizeBytes, bytes.endBytes);
            if (isHere)
                checkGrain({&extent, {CheckedThing::Kind::Grain, index, {position, endBytes}}});
            ++index;
        }
    }

    /// By position, not by index, since an extent may begin within a grain of the disk.
    bool isGrainHere(__int64 positionBytes) {
        m_disk.getDisk().seek(positionBytes);
        return m_disk.getDisk().isGrainWrittenAndIndependentOfParent();
    }

    void checkGrain(GrainInExtent const& grain) {
        ByteRange const& bytes = grain.thing.bytes;
        if (m_decoders && !m_decoders->getFree())
            drainOne();
        bool isToBeDecoded = false;
        auto const failure = findingOf([&] {
            isToBeDecoded =
                m_decoders && m_disk.getFileGrain(bytes.startBytes).isGrainOfDisk &&
                m_disk.tryReadPreparedGrain(grain.thing.number, *m_decoders->getFree()->record);
            if (!isToBeDecoded)
                readPlain(bytes);
        });
        if (failure) {
            drainAll();
            reportGrain(grain, *failure);
        } else if (isToBeDecoded) {
            assert(m_decoders->getFree() && "the record has been read into it");
            m_decoders->getFree()->grain = grain;
            m_decoders->submit();
        }
    }

    void readPlain(ByteRange const& bytes) {
        int const count = static_cast<int>(bytes.endBytes - bytes.startBytes);
        m_grain.setUsed(count);
        m_disk.read(bytes.startBytes, m_grain.getData(), count);
    }

    void drainOne() {
        assert(m_decoders && m_decoders->isBusy());
        auto const failure = findingOf([this] { m_decoders->takeOldest(); });
        GrainInExtent const grain = m_decoders->getTaken().grain;
        m_decoders->recycle();
        if (failure)
            reportGrain(grain, *failure);
    }

    void drainAll() {
        while (m_decoders && m_decoders->isBusy())
            drainOne();
    }

    void noteUnreachable(Unreachable run) {
        assert(run.firstIndex < run.endIndex);
        if (m_unreachable && m_unreachable->extent == run.extent &&
            m_unreachable->endIndex == run.firstIndex && m_unreachable->reason == run.reason) {
            m_unreachable->endIndex = run.endIndex;
            m_unreachable->bytes.include(run.bytes);
            return;
        }
        drainAll();
        reportUnreachable();
        m_unreachable = std::move(run);
    }

    /// What has been found in one file is told before anything about the next.
    void beginReportOn(DiskExtent const& extent) {
        if (m_reported != &extent)
            m_fold.flush();
        m_reported = &extent;
    }

    void reportUnreachable() {
        if (!m_unreachable)
            return;
        Unreachable const run = *m_unreachable;
        m_unreachable.reset();
        beginReportOn(*run.extent);
        std::string const first = std::to_string(run.firstIndex);
        m_fold.add((run.endIndex == run.firstIndex + 1
                        ? "grain " + first
                        : "grains " + first + " to " + std::to_string(run.endIndex - 1)) +
                       " cannot be looked up: " + run.reason,
                   run.bytes);
    }

    void reportGrain(GrainInExtent const& grain, std::string const& failure) {
        reportUnreachable();
        if (m_numbersAreUnique && m_known.contains(grain.thing.number))
            return;
        beginReportOn(*grain.extent);
        m_fold.addOfThing(grain.thing, grain.thing.getName() + ": " + failure);
    }

    SafeDisk& m_disk;
    CancelFlag const* m_cancel;
    ProgressThrottle m_throttle;

    /// The extent that the findings in `m_fold` are about.
    DiskExtent const* m_reported = nullptr;
    FindingFold::Report m_report;
    FindingFold m_fold;
    KnownGrains const& m_known;

    /// Whether no two grains have one number, which those of extents of different grain sizes may.
    bool m_numbersAreUnique = true;
    std::optional<Unreachable> m_unreachable;
    Buffer m_grain;

    /// One for each worker. They outlive the pipeline.
    std::vector<yx::P<CVMDKDataPreparer>> m_preparers;

    /// Null for a disk that stores plain grains.
    std::unique_ptr<GrainDecoders> m_decoders;
};

} // namespace

void checkGrains(SafeDisk& disk, WorkOptions const& options, FindingCallback const& report,
                 KnownGrains const& known) {
    GrainCheck(disk, options, report, known).run();
}

} // namespace kelm::host

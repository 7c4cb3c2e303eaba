#include "host/check/grain_check.h"

#include <algorithm>
#include <cassert>
#include <memory>
#include <optional>
#include <vector>

#include "host/check/check_errors.h"
#include "host/check/finding_fold.h"
#include "host/system/worker_pipeline.h"
#include "kelm/format/constants.h"

namespace kelm::host {

namespace {

using Buffer = yx::TBuffer<unsigned char>;

/// A grain whose record is decoded on a worker thread.
struct CheckedGrain {
    __int64 index = 0;
    yx::P<Buffer> record = yx::makeObject<Buffer>();
    yx::P<Buffer> plain = yx::makeObject<Buffer>();
};

using GrainDecoders = WorkerPipeline<CheckedGrain>;

/// Keeps the workers supplied with the grains of one disk, and reports what they find in order.
class GrainCheck {
public:
    GrainCheck(SafeDisk& disk, WorkOptions const& options,
               std::function<void(std::string const&)> const& report, KnownGrains const& known)
        : m_disk(disk),
          m_cancel(options.cancel),
          m_throttle(options.progress),
          m_fold(report),
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
    /// Neighbouring grains that cannot be looked up, all for the same reason.
    struct Unreachable {
        __int64 firstIndex;
        __int64 endIndex;
        std::string reason;
    };

    void checkAllGrains() {
        std::vector<DiskExtent> const& extents = m_disk.listExtents();
        m_numbersAreUnique =
            std::all_of(extents.begin(), extents.end(), [this](DiskExtent const& extent) {
                return grainSizeOf(extent) == m_disk.getGrainSizeBytes();
            });
        for (DiskExtent const& extent : m_disk.listExtents()) {
            __int64 const grainSizeBytes = grainSizeOf(extent);
            __int64 const tableBytes = grainSizeBytes * kGrainTableEntryCount;
            for (__int64 start = extent.startBytes; start < extent.endBytes; start += tableBytes) {
                checkTable(start, std::min(extent.endBytes, start + tableBytes), grainSizeBytes,
                           extent.getStartGrainIndex() +
                               (start - extent.startBytes) / grainSizeBytes);
            }
        }
        drainAll();
        reportUnreachable();
    }

    /// The grain size of an extent's file; that of the disk if the file does not tell, which the first
    /// look at a grain then finds.
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
    void checkTable(__int64 startBytes, __int64 endBytes, __int64 grainSizeBytes,
                    __int64 firstIndex) {
        __int64 index = firstIndex;
        for (__int64 position = startBytes; position < endBytes; position += grainSizeBytes) {
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
                __int64 const count = (endBytes - position + grainSizeBytes - 1) / grainSizeBytes;
                noteUnreachable(index, index + count, *failure);
                return;
            }
            if (isHere)
                checkGrain(position, std::min(grainSizeBytes, endBytes - position), index);
            ++index;
        }
    }

    /// By position, not by index, since an extent may begin within a grain of the disk.
    bool isGrainHere(__int64 positionBytes) {
        m_disk.getDisk().seek(positionBytes);
        return m_disk.getDisk().isGrainWrittenAndIndependentOfParent();
    }

    void checkGrain(__int64 positionBytes, __int64 bytes, __int64 index) {
        if (m_decoders && !m_decoders->getFree())
            drainOne();
        bool isToBeDecoded = false;
        auto const failure = findingOf([&] {
            isToBeDecoded = m_decoders && m_disk.getFileGrain(positionBytes).isGrainOfDisk &&
                            m_disk.tryReadPreparedGrain(index, *m_decoders->getFree()->record);
            if (!isToBeDecoded)
                readPlain(positionBytes, static_cast<int>(bytes));
        });
        if (failure) {
            drainAll();
            reportGrain(index, *failure);
        } else if (isToBeDecoded) {
            assert(m_decoders->getFree() && "the record has been read into it");
            m_decoders->getFree()->index = index;
            m_decoders->submit();
        }
    }

    void readPlain(__int64 positionBytes, int bytes) {
        m_grain.setUsed(bytes);
        m_disk.read(positionBytes, m_grain.getData(), bytes);
    }

    void drainOne() {
        assert(m_decoders && m_decoders->isBusy());
        auto const failure = findingOf([this] { m_decoders->takeOldest(); });
        __int64 const index = m_decoders->getTaken().index;
        m_decoders->recycle();
        if (failure)
            reportGrain(index, *failure);
    }

    void drainAll() {
        while (m_decoders && m_decoders->isBusy())
            drainOne();
    }

    void noteUnreachable(__int64 firstIndex, __int64 endIndex, std::string const& reason) {
        assert(firstIndex < endIndex);
        if (m_unreachable && m_unreachable->endIndex == firstIndex &&
            m_unreachable->reason == reason) {
            m_unreachable->endIndex = endIndex;
            return;
        }
        drainAll();
        reportUnreachable();
        m_unreachable = Unreachable{firstIndex, endIndex, reason};
    }

    void reportUnreachable() {
        if (!m_unreachable)
            return;
        Unreachable const run = *m_unreachable;
        m_unreachable.reset();
        std::string const first = std::to_string(run.firstIndex);
        m_fold.add((run.endIndex == run.firstIndex + 1
                        ? "grain " + first
                        : "grains " + first + " to " + std::to_string(run.endIndex - 1)) +
                   " cannot be looked up: " + run.reason);
    }

    void reportGrain(__int64 index, std::string const& failure) {
        reportUnreachable();
        if (!m_numbersAreUnique || !m_known.contains(index))
            m_fold.addOfThing("grain", index, "grain " + std::to_string(index) + ": " + failure);
    }

    SafeDisk& m_disk;
    CancelFlag const* m_cancel;
    ProgressThrottle m_throttle;
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

void checkGrains(SafeDisk& disk, WorkOptions const& options,
                 std::function<void(std::string const&)> const& report, KnownGrains const& known) {
    GrainCheck(disk, options, report, known).run();
}

} // namespace kelm::host

#include "host/check/grain_check.h"

#include <algorithm>
#include <cassert>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include "host/check/check_errors.h"
#include "host/check/finding_fold.h"
#include "host/disk/grain_ciphers.h"
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

/// A grain that is decoded, compared with its digest, or both, on a worker thread.
struct CheckedGrain {
    GrainInExtent grain;

    /// As it was read; a record or plain bytes.
    yx::P<Buffer> input = yx::makeObject<Buffer>();
    bool isRecord = false;

    /// What the input has to be deciphered with first, if anything.
    GrainCiphers::Set const* ciphers = nullptr;
    yx::P<Buffer> deciphered = yx::makeObject<Buffer>();
    yx::P<Buffer> plain = yx::makeObject<Buffer>();
    std::optional<Digest> digest;
};

constexpr char kDifferentContent[] = "its content differs from its digest";
constexpr char kLostGrain[] = "it has a digest, but the disk does not hold it any more";
constexpr char kGrainWithoutDigest[] = "the disk holds it, but it has no digest";

using GrainDecoders = WorkerPipeline<CheckedGrain>;

/// Keeps the workers supplied with the grains of one disk, and reports what they find in order.
class GrainCheck {
public:
    GrainCheck(SafeDisk& disk, WorkOptions const& options, FindingCallback const& report,
               GrainKnowledge const& knowledge)
        : m_disk(disk),
          m_cancel(options.cancel),
          m_throttle(options.progress),
          m_reportTo(report),
          m_report([this, &report](std::string const& text) { report(m_reported->uri, text); }),
          m_fold(m_report),
          m_structure(knowledge.structure),
          m_sample(knowledge.sample),
          m_digests(knowledge.digests),
          m_ciphers(disk, countThreads(options)) {
        if (disk.getDisk().getCompressed() || m_digests)
            startWorkers(countThreads(options));
    }

    GrainCounts run() {
        try {
            checkAllGrains();
        } catch (CancelledError const&) {
            m_fold.flush();
            throw;
        }
        m_fold.flush();
        m_throttle.report(m_disk.getSizeBytes(), m_disk.getSizeBytes());
        return m_counts;
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
        // What is said of a grain beside the grain itself lies in records alone.
        if (!m_disk.getDisk().getCompressed())
            m_structure.finish();
        std::vector<DiskExtent> const& extents = m_disk.listExtents();
        m_numbersAreUnique =
            std::all_of(extents.begin(), extents.end(), [this](DiskExtent const& extent) {
                return grainSizeOf(extent) == m_disk.getGrainSizeBytes();
            });
        m_haveDiskGrains = haveDiskGrains();
        for (DiskExtent const& extent : extents) {
            // Where grains have digests, each that is not there is looked for.
            if (!m_digests && m_disk.findMissingEnd(extent.startBytes) == extent.endBytes)
                continue;
            __int64 const grainSizeBytes = grainSizeOf(extent);
            __int64 const tableBytes = grainSizeBytes * kGrainTableEntryCount;
            for (__int64 start = extent.startBytes; start < extent.endBytes; start += tableBytes) {
                checkTable(extent, {start, std::min(extent.endBytes, start + tableBytes)},
                           grainSizeBytes);
            }
        }
        m_structure.finish();
        drainAll();
        reportUnreachable();
        compareOddGrains();
        reportBadDigests();
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
        DigestKeys const keys(m_disk.getDisk());
        for (int i = 0; i < threads; ++i) {
            m_preparers.push_back(m_disk.getDisk().createDataPreparer());
            m_hashers.push_back(std::make_unique<GrainHasher>(keys));
        }
        // A record can be slightly larger than its plain grain.
        __int64 const grainSizeBytes = m_disk.getGrainSizeBytes();
        __int64 const itemBytes = 3 * (grainSizeBytes + grainSizeBytes / 16 + kSectorSizeBytes);
        m_decoders = std::make_unique<GrainDecoders>(
            threads, OrderedWorkers::calcSlotCount(itemBytes, threads),
            [this](CheckedGrain& grain, int worker) {
                decodeAndCompare(grain, static_cast<std::size_t>(worker));
            });
    }

    /// On a worker thread.
    void decodeAndCompare(CheckedGrain& grain, std::size_t worker) {
        if (grain.ciphers) {
            (*grain.ciphers)[worker]->decipher(*grain.input, grain.grain.thing.number,
                                               *grain.deciphered);
            std::swap(grain.input, grain.deciphered);
        }
        yx::P<Buffer> plain = grain.input;
        if (grain.isRecord)
            plain = m_preparers[worker]->unprepareGrainData(grain.input.get(), grain.plain.get());
        if (grain.digest)
            compare(grain.grain.thing, *plain, *grain.digest, *m_hashers[worker]);
    }

    static void compare(CheckedThing const& thing, Buffer const& plain, Digest const& digest,
                        GrainHasher& hasher) {
        auto const bytes = static_cast<int>(thing.bytes.endBytes - thing.bytes.startBytes);
        if (hasher.hash(thing.number, plain.getData(), plain.getUsed(), bytes) != digest)
            throw yx::CIOError(yx::CIOError::CorruptData, kDifferentContent, yx::CProps(), nullptr);
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
            __int64 const empty = countEmptyGrains(index, {position, bytes.endBytes});
            if (empty > 0) {
                index += empty;
                position += (empty - 1) * grainSizeBytes;
                continue;
            }
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
            GrainInExtent const grain{&extent,
                                      {CheckedThing::Kind::Grain, index, {position, endBytes}}};
            if (isHere)
                checkGrain(grain);
            else if (findDigest(grain.thing))
                reportInOrder(grain, kLostGrain);
            ++index;
        }
    }

    /// How many grains from the one at the start of a range on are not here and have no digest, as
    /// far as that can be told at once; 0 says nothing.
    __int64 countEmptyGrains(__int64 grainIndex, ByteRange const& range) {
        if (!m_haveDiskGrains)
            return 0;
        __int64 const grainSizeBytes = m_disk.getGrainSizeBytes();
        __int64 emptyBytes = 0;
        // What fails is found again, and told, when the grains are looked up one by one.
        auto const failure = findingOf([&] {
            m_disk.getDisk().seek(range.startBytes);
            emptyBytes = m_disk.getDisk().countBytesWithoutData(range.endBytes - range.startBytes);
        });
        __int64 const empty = emptyBytes / grainSizeBytes;
        if (failure || empty == 0)
            return 0;
        return countWithoutDigests(grainIndex, empty);
    }

    __int64 countWithoutDigests(__int64 grainIndex, __int64 count) {
        if (!m_digests)
            return count;
        if (m_knowsNextDigests && m_nextDigest < grainIndex) {
            __int64 next = -1;
            // A part that is damaged may be far ahead: `findDigest` tells of it once it is reached.
            auto const failure = findingOf([&] { next = m_digests->findNext(grainIndex); });
            m_knowsNextDigests = !failure;
            m_nextDigest = next < 0 ? m_disk.getGrainCount() : next;
        }
        return m_knowsNextDigests ? std::min(count, m_nextDigest - grainIndex) : 0;
    }

    /// By position, not by index, since an extent may begin within a grain of the disk.
    bool isGrainHere(__int64 positionBytes) {
        m_disk.getDisk().seek(positionBytes);
        return m_disk.getDisk().isGrainWrittenAndIndependentOfParent();
    }

    /// Whether a grain of a file is one of the disk, which are the ones that have digests.
    bool isOfDisk(CheckedThing const& thing) const {
        __int64 const start = thing.number * m_disk.getGrainSizeBytes();
        return thing.bytes.startBytes == start &&
               thing.bytes.endBytes ==
                   std::min(start + m_disk.getGrainSizeBytes(), m_disk.getSizeBytes());
    }

    /// The digest of a grain, if it has one. A part of the digest file that is damaged ends the
    /// comparison.
    std::optional<Digest> findDigest(CheckedThing const& thing) {
        std::optional<Digest> digest;
        if (!m_digests || !isOfDisk(thing))
            return digest;
        m_badDigests = findingOf([&] { digest = m_digests->find(thing.number); });
        if (m_badDigests)
            m_badFile = std::exchange(m_digests, nullptr)->getURI();
        return digest;
    }

    void reportBadDigests() {
        if (!m_badDigests)
            return;
        m_structure.finish();
        m_fold.flush();
        m_reportTo(m_badFile, "the digests cannot be used: " + *m_badDigests);
    }

    void checkGrain(GrainInExtent const& grain) {
        ++m_counts.held;
        std::optional<Digest> const digest = findDigest(grain.thing);
        if (m_digests && !digest && isOfDisk(grain.thing))
            reportInOrder(grain, kGrainWithoutDigest);
        if (!m_sample.contains(grain.thing.number))
            return;
        ++m_counts.read;
        m_structure.runTo(*grain.extent, grain.thing.number);
        if (m_decoders && !m_decoders->getFree())
            drainOne();
        bool isForWorkers = false;
        auto const failure = findingOf([&] { isForWorkers = readForWorkers(grain, digest); });
        if (failure) {
            reportInOrder(grain, *failure);
        } else if (isForWorkers) {
            assert(m_decoders->getFree() && "the grain has been read into it");
            m_decoders->submit();
        }
    }

    /// Reads a grain, and says whether there is something to compute.
    bool readForWorkers(GrainInExtent const& grain, std::optional<Digest> const& digest) {
        ByteRange const& bytes = grain.thing.bytes;
        if (!m_decoders) {
            // To decipher it would tell nothing about it.
            if (!tryReadEnciphered(grain, m_grain))
                readPlain(bytes, m_grain);
            return false;
        }
        CheckedGrain& item = *m_decoders->getFree();
        item.grain = grain;
        item.digest = digest;
        bool const isCompressed = m_disk.getDisk().getCompressed();
        item.ciphers = tryReadEnciphered(grain, *item.input);
        item.isRecord =
            isCompressed &&
            (item.ciphers || (m_disk.getFileGrain(bytes.startBytes).isGrainOfDisk &&
                              m_disk.tryReadPreparedGrain(grain.thing.number, *item.input)));
        if (!item.isRecord && !item.ciphers)
            readPlain(bytes, *item.input);
        return item.isRecord || item.digest;
    }

    /// The ciphers for a grain of the disk that has been read as its file holds it; null if it has
    /// not been read, since it is to be read otherwise.
    GrainCiphers::Set const* tryReadEnciphered(GrainInExtent const& grain, Buffer& target) {
        if (!m_disk.getDisk().isEncrypted() ||
            !m_disk.getFileGrain(grain.thing.bytes.startBytes).isGrainOfDisk)
            return nullptr;
        return m_ciphers.tryRead(grain.thing.number, target);
    }

    void readPlain(ByteRange const& bytes, Buffer& target) {
        int const count = static_cast<int>(bytes.endBytes - bytes.startBytes);
        target.setUsed(count);
        m_disk.read(bytes.startBytes, target.getData(), count);
    }

    /// Compares the grains of the disk that are none of a file, since an extent has other ones.
    void compareOddGrains() {
        if (!m_digests || m_haveDiskGrains)
            return;
        GrainHasher hasher((DigestKeys(m_disk.getDisk())));
        __int64 next = 0;
        while (m_digests) {
            __int64 index = -1;
            m_badDigests = findingOf([&] { index = m_digests->findNext(next); });
            if (m_badDigests)
                m_badFile = std::exchange(m_digests, nullptr)->getURI();
            if (index < 0)
                return;
            next = index + 1;
            if (m_cancel)
                m_cancel->check();
            if (!m_sample.contains(index))
                continue;
            __int64 const start = index * m_disk.getGrainSizeBytes();
            DiskExtent const& extent = extentAt(start);
            CheckedThing const thing{
                CheckedThing::Kind::Grain,
                index,
                {start, std::min(start + m_disk.getGrainSizeBytes(), m_disk.getSizeBytes())}};
            if (isDiskGrainIn(extent, thing.bytes))
                continue;
            compareOddGrain({&extent, thing}, hasher);
        }
    }

    void compareOddGrain(GrainInExtent const& grain, GrainHasher& hasher) {
        bool isHere = false;
        auto const failure = findingOf([&] {
            isHere = m_disk.isGrainWrittenHere(grain.thing.number);
            if (!isHere)
                return;
            readPlain(grain.thing.bytes, m_grain);
            compare(grain.thing, m_grain, *m_digests->find(grain.thing.number), hasher);
        });
        if (failure)
            reportGrain(grain, *failure);
        else if (!isHere)
            reportGrain(grain, kLostGrain);
    }

    /// Whether a grain of the disk is also one of the extent's file.
    bool isDiskGrainIn(DiskExtent const& extent, ByteRange const& bytes) {
        return grainSizeOf(extent) == m_disk.getGrainSizeBytes() &&
               (bytes.startBytes - extent.startBytes) % m_disk.getGrainSizeBytes() == 0 &&
               bytes.endBytes <= extent.endBytes;
    }

    /// Whether all grains of the disk are grains of files.
    bool haveDiskGrains() const {
        std::vector<DiskExtent> const& extents = m_disk.listExtents();
        return m_numbersAreUnique &&
               std::all_of(extents.begin(), extents.end(), [this](DiskExtent const& extent) {
                   return extent.startBytes % m_disk.getGrainSizeBytes() == 0;
               });
    }

    DiskExtent const& extentAt(__int64 positionBytes) const {
        std::vector<DiskExtent> const& extents = m_disk.listExtents();
        return *std::find_if(extents.begin(), extents.end(), [&](DiskExtent const& extent) {
            return positionBytes < extent.endBytes;
        });
    }

    /// Tells of a grain once all before it have been told of.
    void reportInOrder(GrainInExtent const& grain, std::string const& failure) {
        drainAll();
        reportGrain(grain, failure);
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
        m_structure.finish();
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
        m_structure.finish();
        if (m_numbersAreUnique && m_structure.getDamaged().contains(grain.thing.number))
            return;
        beginReportOn(*grain.extent);
        m_fold.addOfThing(grain.thing, grain.thing.getName() + ": " + failure);
    }

    SafeDisk& m_disk;
    CancelFlag const* m_cancel;
    ProgressThrottle m_throttle;

    /// The extent that the findings in `m_fold` are about.
    DiskExtent const* m_reported = nullptr;
    FindingCallback const& m_reportTo;
    FindingFold::Report m_report;
    FindingFold m_fold;
    StructureCheck& m_structure;
    GrainSample m_sample;
    GrainCounts m_counts;

    /// Null where there are none, or none that can be read any more, for a reason that is told at
    /// the end.
    DigestFile* m_digests;
    std::optional<std::string> m_badDigests;

    /// The first grain with a digest from some grain before it on; the grain count if none has.
    __int64 m_nextDigest = -1;

    /// False once that could not be found out.
    bool m_knowsNextDigests = true;
    yx::CURI m_badFile;

    /// Whether no two grains have one number, which those of extents of different grain sizes may.
    bool m_numbersAreUnique = true;

    /// Whether all grains of the disk are grains of files.
    bool m_haveDiskGrains = false;
    std::optional<Unreachable> m_unreachable;
    Buffer m_grain;

    GrainCiphers m_ciphers;

    /// One for each worker. They outlive the pipeline.
    std::vector<yx::P<CVMDKDataPreparer>> m_preparers;
    std::vector<std::unique_ptr<GrainHasher>> m_hashers;

    /// Null where there is nothing to compute: no compression, and no digests.
    std::unique_ptr<GrainDecoders> m_decoders;
};

} // namespace

GrainCounts checkGrains(SafeDisk& disk, WorkOptions const& options, FindingCallback const& report,
                        GrainKnowledge const& knowledge) {
    return GrainCheck(disk, options, report, knowledge).run();
}

} // namespace kelm::host

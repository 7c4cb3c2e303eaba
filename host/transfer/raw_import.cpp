#include "host/transfer/raw_import.h"

#include <cassert>
#include <cstring>
#include <memory>
#include <optional>
#include <vector>

#include "host/transfer/digest_hashers.h"
#include "host/transfer/grain_pipeline.h"
#include "host/transfer/grain_place.h"
#include "host/transfer/image_reader.h"
#include "host/transfer/periodic_flush.h"
#include "host/transfer/plain_grains.h"
#include "host/transfer/preparer_set.h"
#include "host/transfer/result_cipher.h"
#include "host/transfer/transfer_progress.h"
#include "host/transfer/whole_reading.h"

namespace kelm::host {

namespace {

using Buffer = yx::TBuffer<unsigned char>;

/// Whether the disk reads as `grain` there already.
bool holdsEqualGrain(SafeDisk& disk, __int64 grainIndex, Buffer const& grain, Buffer& scratch) {
    withGrainPlace(disk, grainIndex, [&] { readPlainGrain(disk, grainIndex, scratch); });
    assert(scratch.getUsed() <= grain.getUsed());
    return std::memcmp(scratch.getData(), grain.getData(),
                       static_cast<std::size_t>(scratch.getUsed())) == 0;
}

/// Counts a grain that has been written, unless that was zeros, which take no space.
void addIfStored(SafeDisk& disk, __int64 grainIndex, TransferProgress& progress) {
    if (disk.isGrainWrittenHere(grainIndex))
        progress.addStored(bytesInDisk(disk, grainIndex));
}

/// On one thread: without digests, there is nothing to compute for a disk of plain grains that is
/// not encrypted.
void importDirectly(ImageReader& reader, SafeDisk& disk, bool isCompared, PeriodicFlush& flush,
                    TransferProgress& progress) {
    Buffer grain;
    Buffer scratch;
    __int64 grainIndex = 0;
    while (reader.readNext(grain, grainIndex)) {
        bool const isInHole = grain.getUsed() == 0;
        if (isInHole) {
            storeZeroGrain(disk, grainIndex);
        } else if (!isCompared || !holdsEqualGrain(disk, grainIndex, grain, scratch)) {
            storePlainGrain(disk, grainIndex, grain);
            flush.addGrain();
            addIfStored(disk, grainIndex, progress);
        }
        progress.advanceTo(reader.getDoneBytes());
    }
}

/// What an import does for the digests of the disk.
class ImportDigests {
public:
    /// `digests` may be null. One hasher more than workers, for the thread of the disk.
    ImportDigests(DigestMaking* digests, SafeDisk& disk, int threads) : m_digests(digests) {
        if (digests)
            m_hashers.emplace(digests->getKeys(), disk, threads + 1);
        m_ownWorker = threads;
    }

    /// On a worker thread, for a grain that is not zero.
    void hash(GrainItem& item, int worker) {
        if (!m_hashers)
            return;
        item.digest = m_hashers->hash(item.grainIndex, *item.input, worker);
        item.hasDigest = true;
    }

    /// Once a grain that is not zero has been stored.
    void addStored(GrainItem const& item) {
        if (m_digests)
            m_digests->add(item.grainIndex, item.digest);
    }

    /// Once a grain has been left as it is, or made to read as zeros.
    void addIfHeld(SafeDisk& disk, GrainItem const& item) {
        if (!m_digests || !disk.isGrainWrittenHere(item.grainIndex))
            return;
        m_digests->add(item.grainIndex,
                       item.hasDigest ? item.digest
                                      : m_hashers->hash(item.grainIndex, m_nothing, m_ownWorker));
    }

    /// Once a grain of the image has been read, of which so many bytes from a position on are the
    /// image's. Where some have been passed over, `skipsHoles` says that they are zeros; else the
    /// disk is read at the end instead.
    void addToImage(GrainItem const& item, __int64 positionBytes, __int64 bytes, bool skipsHoles) {
        ImageHasher* const image = m_digests ? m_digests->getImage() : nullptr;
        if (image && skipsHoles)
            image->addZeros(positionBytes - image->getBytes());
        if (!image || image->getBytes() != positionBytes)
            return;
        if (item.input->getUsed() == 0)
            image->addZeros(bytes);
        else
            image->add(item.input->getData(), static_cast<int>(bytes));
    }

private:
    DigestMaking* m_digests;
    std::optional<DigestHashers> m_hashers;
    int m_ownWorker = 0;
    Buffer const m_nothing;
};

bool readNextItem(ImageReader& reader, ImportDigests& digests, SafeDisk const& disk,
                  GrainItem& item) {
    item.hasDigest = false;
    if (!reader.readNext(*item.input, item.grainIndex))
        return false;
    __int64 const positionBytes = item.grainIndex * disk.getGrainSizeBytes();
    digests.addToImage(item, positionBytes, reader.getDoneBytes() - positionBytes,
                       reader.doesSkipHoles());
    return true;
}

bool isInHole(GrainItem const& item) {
    return item.input->getUsed() == 0;
}

/// As `importDirectly`, with the digests made by workers.
void importHashed(ImageReader& reader, SafeDisk& disk, bool isCompared, DigestMaking& making,
                  int threads, PeriodicFlush& flush, TransferProgress& progress) {
    ImportDigests digests(&making, disk, threads);
    GrainPipeline pipeline(threads, disk.getGrainSizeBytes(), [&](GrainItem& item, int worker) {
        if (!isInHole(item) && !isZeroGrain(*item.input))
            digests.hash(item, worker);
    });
    Buffer scratch;
    pipeline.run([&](GrainItem& item) { return readNextItem(reader, digests, disk, item); },
                 [&](GrainItem& item) {
                     bool isStored = false;
                     if (isInHole(item)) {
                         storeZeroGrain(disk, item.grainIndex);
                     } else if (!isCompared ||
                                !holdsEqualGrain(disk, item.grainIndex, *item.input, scratch)) {
                         storePlainGrain(disk, item.grainIndex, *item.input);
                         flush.addGrain();
                         addIfStored(disk, item.grainIndex, progress);
                         isStored = item.hasDigest;
                     }
                     if (isStored)
                         digests.addStored(item);
                     else if (isCompared)
                         digests.addIfHeld(disk, item);
                     progress.advanceTo(item.grainIndex * disk.getGrainSizeBytes());
                 });
}

/// Whether it takes work to prepare a grain for the disk, which is then better done by workers.
bool isPreparedByWorkers(SafeDisk& disk) {
    return disk.getDisk().getCompressed() || disk.getDisk().isEncrypted();
}

/// Compares grains with what the parents of a disk have, by their digests.
class ParentComparison {
public:
    /// `parents` may be null.
    ParentComparison(ChainDigests const* parents, SafeDisk const& disk, int threads)
        : m_disk(disk) {
        for (int worker = 0; parents && worker < threads; ++worker)
            m_hashers.push_back(parents->makeHashers());
    }

    /// On a worker thread: whether the grain, which may lie in a hole, is that of the parents, as far
    /// as that is known.
    bool isAsParents(GrainItem const& item, bool isZero, int worker) {
        if (!item.ofChain.isKnown)
            return false;
        if (item.ofChain.holder == -1)
            return isZero;
        GrainHasher& hasher = *m_hashers[static_cast<std::size_t>(worker)]
                                        [static_cast<std::size_t>(item.ofChain.holder)];
        return hasher.hash(item.grainIndex, item.input->getData(), item.input->getUsed(),
                           bytesInDisk(m_disk, item.grainIndex)) == item.ofChain.digest;
    }

private:
    SafeDisk const& m_disk;
    std::vector<std::vector<std::unique_ptr<GrainHasher>>> m_hashers;
};

/// What an import to a child knows before; each may be null.
struct ImportKnowledge {
    ChainDigests* parents;
    DigestMaking* making;
    ChangedGrains const* changes;
};

/// Whether the disk reads as a grain, which may lie in a hole, already.
bool readsAs(SafeDisk& disk, GrainItem const& item, Buffer& scratch) {
    if (!isInHole(item))
        return holdsEqualGrain(disk, item.grainIndex, *item.input, scratch);
    if (!disk.isGrainWritten(item.grainIndex))
        return true;
    withGrainPlace(disk, item.grainIndex, [&] { readPlainGrain(disk, item.grainIndex, scratch); });
    return isZeroGrain(scratch);
}

void verifyMayDiffer(SafeDisk const& disk, __int64 grainIndex, ChangedGrains const* changes) {
    if (!changes || changes->isChanged(grainIndex))
        return;
    __int64 const start = grainIndex * disk.getGrainSizeBytes();
    throw yx::CIOError(
        yx::CIOError::NotAllowed, "The image has changed where the list of changes has nothing.",
        yx::CProps().add("bytes", yx::toString(start) + "-" +
                                      yx::toString(start + bytesInDisk(disk, grainIndex) - 1)),
        nullptr);
}

/// To a child: where it is known before what its parents have, or where the image has changed, and
/// to one that `isPreparedByWorkers`. What is not known is compared by reading before the workers
/// prepare what differs.
void importDifferences(ImageReader& reader, SafeDisk& disk, ImportKnowledge const& known,
                       int threads, PeriodicFlush& flush, TransferProgress& progress) {
    bool const isCoded = isPreparedByWorkers(disk);
    PreparerSet preparers(disk, threads);
    ResultCipher cipher(disk, threads);
    ParentComparison comparison(known.parents, disk, threads);
    ImportDigests digests(known.making, disk, threads);
    Buffer scratch;
    GrainPipeline pipeline(threads, disk.getGrainSizeBytes(), [&](GrainItem& item, int worker) {
        if (item.isAsParents)
            return;
        bool const isZero = isInHole(item) || isZeroGrain(*item.input);
        item.isAsParents = comparison.isAsParents(item, isZero, worker);
        if (item.isAsParents || isZero)
            return;
        digests.hash(item, worker);
        if (!isCoded)
            return;
        item.result = preparers.of(worker).prepareGrainData(item.input.get(), item.grainIndex,
                                                            item.aux1.get());
        cipher.encipher(item, worker);
    });
    pipeline.run(
        [&](GrainItem& item) {
            if (!readNextItem(reader, digests, disk, item))
                return false;
            item.ofChain = ChainDigests::Grain();
            item.ofChain.isKnown = false;
            if (known.parents)
                item.ofChain = known.parents->find(item.grainIndex);
            item.isAsParents = !item.ofChain.isKnown && readsAs(disk, item, scratch);
            return true;
        },
        [&](GrainItem& item) {
            progress.advanceTo(item.grainIndex * disk.getGrainSizeBytes());
            if (item.isAsParents)
                return;
            verifyMayDiffer(disk, item.grainIndex, known.changes);
            if (isInHole(item))
                storeZeroGrain(disk, item.grainIndex);
            else if (item.result && disk.isWholeGrain(item.grainIndex))
                cipher.store(item);
            else
                storePlainGrain(disk, item.grainIndex, *item.input);
            flush.addGrain();
            addIfStored(disk, item.grainIndex, progress);
            if (item.hasDigest)
                digests.addStored(item);
            else
                digests.addIfHeld(disk, item);
        });
}

/// To a disk that `isPreparedByWorkers`.
void importCoded(ImageReader& reader, SafeDisk& disk, DigestMaking* making, int threads,
                 PeriodicFlush& flush, TransferProgress& progress) {
    assert(!disk.hasParent());
    PreparerSet preparers(disk, threads);
    ResultCipher cipher(disk, threads);
    ImportDigests digests(making, disk, threads);
    GrainPipeline pipeline(threads, disk.getGrainSizeBytes(), [&](GrainItem& item, int worker) {
        if (isInHole(item) || isZeroGrain(*item.input))
            return;
        digests.hash(item, worker);
        item.result = preparers.of(worker).prepareGrainData(item.input.get(), item.grainIndex,
                                                            item.aux1.get());
        cipher.encipher(item, worker);
    });
    pipeline.run([&](GrainItem& item) { return readNextItem(reader, digests, disk, item); },
                 [&](GrainItem& item) {
                     if (!item.result)
                         storeZeroGrain(disk, item.grainIndex);
                     else if (disk.isWholeGrain(item.grainIndex))
                         cipher.store(item);
                     else
                         storePlainGrain(disk, item.grainIndex, *item.input);
                     if (item.result) {
                         flush.addGrain();
                         addIfStored(disk, item.grainIndex, progress);
                         digests.addStored(item);
                     }
                     progress.advanceTo(item.grainIndex * disk.getGrainSizeBytes());
                 });
}

} // namespace

void importRaw(RawSource& source, SafeDisk& disk, WorkOptions const& options,
               ImageLength const& length, PresentContent present, DigestMaking* digests,
               ChainDigests* parents, ChangedGrains const* changes) {
    bool const isCompared = disk.hasParent() || present == PresentContent::Any;
    if (disk.hasParent())
        beginWholeReading(disk, options.cancel);
    disk.limitTables(kMaxTablesOfOnePass);
    TransferProgress progress(options, source.getLength());
    assert(!changes || (disk.hasParent() && present == PresentContent::OfParent));
    ImageReader reader(source, disk, length, progress, changes);
    PeriodicFlush flush(disk, options.flushIntervalBytes);
    int const threads = countThreads(options);
    // Where the parents have digests, these tell of grains that a parent has lost too.
    if (parents && !changes && present == PresentContent::OfParent) {
        reader.skipHoles([parents](__int64 grainIndex, __int64 maxGrains) {
            return parents->countAbsent(grainIndex, maxGrains);
        });
    } else if (!parents && !changes) {
        reader.skipHoles();
    }
    if (isPreparedByWorkers(disk) && !isCompared)
        importCoded(reader, disk, digests, threads, flush, progress);
    else if ((parents || changes || isPreparedByWorkers(disk)) &&
             present == PresentContent::OfParent)
        importDifferences(reader, disk, {parents, digests, changes}, threads, flush, progress);
    else if (digests)
        importHashed(reader, disk, isCompared, *digests, threads, flush, progress);
    else
        importDirectly(reader, disk, isCompared, flush, progress);
    assert(reader.getDoneBytes() == source.getPosition());
    disk.flush();
    progress.finish(source.getPosition());
}

} // namespace kelm::host

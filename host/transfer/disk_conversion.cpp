#include "host/transfer/disk_conversion.h"

#include <cassert>
#include <optional>

#include "host/transfer/digest_hashers.h"
#include "host/transfer/grain_pipeline.h"
#include "host/transfer/grain_place.h"
#include "host/transfer/known_digests.h"
#include "host/transfer/plain_grains.h"
#include "host/transfer/result_cipher.h"
#include "host/transfer/unpreparer.h"
#include "host/transfer/whole_reading.h"
#include "host/transfer/written_grain_reader.h"
#include "yx/error.h"

namespace kelm::host {

namespace {

/// The work on one grain between disks whose grains have one size.
class GrainConversion {
public:
    GrainConversion(SafeDisk& from, SafeDisk& to, RecordCheck check, int threads,
                    ConversionDigests const& digests)
        : m_grainSizeBytes(static_cast<int>(to.getGrainSizeBytes())),
          m_bothAreCompressed(from.getDisk().getCompressed() && to.getDisk().getCompressed()),
          m_unpreparer(from, threads),
          m_preparers(to, threads),
          m_cipher(to, threads),
          m_known(digests.made ? digests.known : nullptr, from, threads) {
        if (m_bothAreCompressed && check == RecordCheck::Decode)
            m_verifier.emplace(from, threads);
        if (digests.made) {
            m_hashers.emplace(digests.made->getKeys(), to, threads + 1);
            m_digestsHaveKey = digests.made->getKeys().isKeyed;
        }
        m_ownWorker = threads;
    }

    /// On the thread of the disks.
    void read(GrainItem& item) {
        item.hasDigest = false;
        m_known.find(item);
        m_unpreparer.read(item);
    }
    void store(GrainItem const& item) { m_cipher.store(item); }

    /// On a worker thread.
    void convert(GrainItem& item, int worker) {
        Unpreparer::decipher(item, worker);
        if (item.inputIsPrepared && m_bothAreCompressed && !item.resultIsPlain)
            takeRecord(item, worker);
        else
            convertContent(item, worker);
        if (!item.resultIsPlain)
            m_cipher.encipher(item, worker);
    }

    /// On the thread of the disks; only where there are digests.
    Digest hashZeros(__int64 grainIndex) {
        return m_hashers->hash(grainIndex, m_nothing, m_ownWorker);
    }

private:
    void takeRecord(GrainItem& item, int worker) {
        if (m_verifier || m_hashers) {
            yx::P<GrainItem::Buffer> const plain =
                m_verifier ? m_verifier->verify(item, worker) : m_unpreparer.getPlain(item, worker);
            hash(item, *plain, worker);
            m_known.verify(item, *plain, m_digestsHaveKey, worker);
        }
        // Readers ignore the index in a record, so one that was not verified may be wrong.
        m_preparers.of(worker).patchGrainIndexInPreparedGrainData(*item.input, item.grainIndex);
        item.result = item.input;
    }

    void convertContent(GrainItem& item, int worker) {
        yx::P<GrainItem::Buffer> const plain = m_unpreparer.getPlain(item, worker);
        bool const isZero = isZeroGrain(*plain);
        if (!isZero)
            hash(item, *plain, worker);
        m_known.verify(item, *plain, m_digestsHaveKey, worker);
        if (isZero)
            return;
        item.result = item.resultIsPlain ? plain : prepare(item, *plain, worker);
    }

    /// A disk that ends within a grain gives less than the target is to hold.
    yx::P<GrainItem::Buffer> prepare(GrainItem& item, GrainItem::Buffer& plain, int worker) {
        int const usedBytes = plain.getUsed();
        plain.setUsed(m_grainSizeBytes);
        fillWithZeros(plain, usedBytes, m_grainSizeBytes);
        return m_preparers.of(worker).prepareGrainData(&plain, item.grainIndex, item.aux2.get());
    }

    void hash(GrainItem& item, GrainItem::Buffer const& plain, int worker) {
        if (!m_hashers)
            return;
        item.digest = m_hashers->hash(item.grainIndex, plain, worker);
        item.hasDigest = true;
    }

    int m_grainSizeBytes;
    bool m_bothAreCompressed;
    std::optional<RecordVerifier> m_verifier;
    Unpreparer m_unpreparer;
    PreparerSet m_preparers;
    ResultCipher m_cipher;
    KnownDigests m_known;

    // One more than workers, for the thread of the disks.
    std::optional<DigestHashers> m_hashers;
    bool m_digestsHaveKey = false;
    int m_ownWorker = 0;
    GrainItem::Buffer const m_nothing;
};

/// Between disks whose grains have one size.
template <class Reader>
void convertGrains(SafeDisk& from, SafeDisk& to, Reader& reader, RecordCheck check, int threads,
                   ConversionDigests const& digests, TransferProgress& progress) {
    assert(from.getGrainSizeBytes() == to.getGrainSizeBytes());
    GrainConversion conversion(from, to, check, threads, digests);
    GrainPipeline pipeline(threads, from.getGrainSizeBytes(),
                           [&](GrainItem& item, int worker) { conversion.convert(item, worker); });
    pipeline.run(
        [&](GrainItem& item) {
            if (!reader.findNext(item.grainIndex))
                return false;
            conversion.read(item);
            progress.addRead(item.input->getUsed());
            // A larger disk has room for the whole of the other one's last grain.
            item.resultIsPlain = !to.isWholeGrain(item.grainIndex);
            return true;
        },
        [&](GrainItem& item) {
            assert(item.grainIndex < to.getGrainCount());
            if (item.result && item.resultIsPlain)
                to.write(item.grainIndex * to.getGrainSizeBytes(), item.result->getData(),
                         item.result->getUsed());
            else if (item.result)
                conversion.store(item);
            else if (to.hasParent())
                storeZeroGrain(to, item.grainIndex);
            if (item.result)
                progress.addStored(bytesInDisk(from, item.grainIndex));
            if (item.result && digests.made)
                digests.made->add(item.grainIndex, item.digest);
            else if (digests.made && to.isGrainWrittenHere(item.grainIndex))
                digests.made->add(item.grainIndex, conversion.hashZeros(item.grainIndex));
            progress.advanceTo(item.grainIndex * from.getGrainSizeBytes());
        },
        grainPlaceOf(from));
}

/// Between disks of different grain sizes, by plain bytes.
template <class Reader>
void convertBytes(SafeDisk& from, SafeDisk& to, Reader& reader, ConversionDigests const& digests,
                  TransferProgress& progress) {
    KnownDigests known(digests.made ? digests.known : nullptr, from, 1);
    GrainItem item;
    GrainItem::Buffer& grain = *item.input;
    while (reader.readNextPlain(grain, item.grainIndex)) {
        known.find(item);
        withGrainPlace(from, item.grainIndex, [&] { known.verify(item, grain, false, 0); });
        __int64 const positionBytes = item.grainIndex * from.getGrainSizeBytes();
        assert(positionBytes + grain.getUsed() <= to.getSizeBytes());
        bool const isZero = isZeroGrain(grain);
        if (to.hasParent() || !isZero)
            to.write(positionBytes, grain.getData(), grain.getUsed());
        if (!isZero)
            progress.addStored(grain.getUsed());
        progress.advanceTo(positionBytes);
    }
}

/// Reads some of the grains of a disk, as `WrittenGrainReader` reads all that are written.
class ChosenGrainReader {
public:
    ChosenGrainReader(SafeDisk& disk, GrainSet const& grains, TransferProgress& progress)
        : m_disk(disk), m_grains(grains), m_progress(progress) {}

    bool findNext(__int64& grainIndex) {
        grainIndex = m_grains.findNext(m_nextGrainIndex);
        m_nextGrainIndex = grainIndex + 1;
        return grainIndex < m_grains.getGrainCount();
    }

    bool readNextPlain(yx::TBuffer<unsigned char>& grain, __int64& grainIndex) {
        if (!findNext(grainIndex))
            return false;
        withGrainPlace(m_disk, grainIndex, [&] { readPlainGrain(m_disk, grainIndex, grain); });
        m_progress.addRead(grain.getUsed());
        return true;
    }

private:
    SafeDisk& m_disk;
    GrainSet const& m_grains;
    TransferProgress& m_progress;
    __int64 m_nextGrainIndex = 0;
};

void verifyHasRoomFor(SafeDisk const& from, SafeDisk const& to) {
    if (to.getSizeBytes() >= from.getSizeBytes())
        return;
    throw yx::CIOError(yx::CIOError::NotAllowed, "The target disk is too small.",
                       yx::CProps()
                           .add("sourceSize", yx::toString(from.getSizeBytes()))
                           .add("targetSize", yx::toString(to.getSizeBytes())),
                       nullptr);
}

/// What becomes of the records, and of their digests.
struct RecordUse {
    RecordCheck check;
    ConversionDigests digests;
};

template <class Reader>
void convertBy(Reader& reader, SafeDisk& from, SafeDisk& to, WorkOptions const& options,
               RecordUse const& use, TransferProgress& progress) {
    if (from.getGrainSizeBytes() == to.getGrainSizeBytes())
        convertGrains(from, to, reader, use.check, countThreads(options), use.digests, progress);
    else
        convertBytes(from, to, reader, use.digests, progress);
}

} // namespace

void convertDisk(SafeDisk& from, SafeDisk& to, WorkOptions const& options, RecordCheck check,
                 ConversionDigests const& digests) {
    verifyHasRoomFor(from, to);
    beginWholeReading(from, options.cancel);
    to.limitTables(kMaxTablesOfOnePass);
    TransferProgress progress(options, from.getSizeBytes());
    WrittenGrainReader reader(from, progress);
    convertBy(reader, from, to, options, {check, digests}, progress);
    to.flush();
    progress.finish(from.getSizeBytes());
}

void convertGrainsOf(SafeDisk& from, SafeDisk& to, GrainSet const& grains,
                     WorkOptions const& options, RecordCheck check,
                     ConversionDigests const& digests) {
    verifyHasRoomFor(from, to);
    beginWholeReading(from, options.cancel);
    beginWholeReading(to, options.cancel);
    to.limitTables(kMaxTablesOfOnePass);
    TransferProgress progress(options, from.getSizeBytes());
    ChosenGrainReader reader(from, grains, progress);
    convertBy(reader, from, to, options, {check, digests}, progress);
    to.writeZeros(from.getSizeBytes(), to.getSizeBytes() - from.getSizeBytes());
    to.flush();
    progress.finish(from.getSizeBytes());
}

} // namespace kelm::host

#include "host/transfer/transfer.h"

#include <algorithm>
#include <cstring>

#include "host/system/grain_pipeline.h"

namespace kelm::host {

namespace {

using Buffer = yx::TBuffer<unsigned char>;
using Item = GrainPipeline::Item;

/// What every transfer does between two grains.
class Ticker {
public:
    Ticker(WorkOptions const& options, __int64 totalBytes)
        : m_throttle(options.progress), m_cancel(options.cancel), m_totalBytes(totalBytes) {}

    void tick(__int64 doneBytes) {
        if (m_cancel)
            m_cancel->check();
        m_throttle.report(doneBytes, m_totalBytes);
    }

    void finish(__int64 doneBytes) { m_throttle.report(doneBytes, doneBytes); }

private:
    ProgressThrottle m_throttle;
    CancelFlag const* m_cancel;
    __int64 m_totalBytes;
};

bool isZero(Buffer const& buffer) {
    return yx::isAllZero(buffer.getData(), static_cast<std::size_t>(buffer.getUsed()));
}

/// Preparers of one disk's settings, one a worker.
class Preparers {
public:
    Preparers(SafeDisk& disk, int count) {
        for (int i = 0; i < count; ++i)
            m_preparers.push_back(disk.getDisk().createDataPreparer());
    }
    CVMDKDataPreparer& of(int worker) { return *m_preparers[static_cast<std::size_t>(worker)]; }

private:
    std::vector<yx::P<CVMDKDataPreparer>> m_preparers;
};

/// Feeds a pipeline and drains it in turns, so that the one thread that holds the disks keeps the
/// workers busy. `fill` fills an item and returns false when there is nothing left; `drain` uses one.
template <class Fill, class Drain>
void pump(GrainPipeline& pipeline, Fill const& fill, Drain const& drain) {
    bool more = true;
    while (more || pipeline.isBusy()) {
        Item* const item = more ? pipeline.getFree() : nullptr;
        if (item) {
            more = fill(*item);
            if (more)
                pipeline.submit();
            continue;
        }
        drain(pipeline.takeOldest());
        pipeline.recycle();
    }
}

void fillWithZeros(Buffer& buffer, int from, int to) {
    yx::initMemory(buffer.getData() + from, 0, static_cast<std::size_t>(to - from));
}

/// Reads an image grain by grain.
class ImageReader {
public:
    ImageReader(RawSource& source, SafeDisk& disk)
        : m_source(source),
          m_disk(disk),
          m_grainSizeBytes(static_cast<int>(disk.getGrainSizeBytes())),
          m_diskSizeBytes(disk.getSizeBytes()) {
        verifyFits(source.getLength());
    }

    /// Reads the next grain into `grain`, filled up with what the disk has behind the end of the
    /// image. Grains in holes have a used size of 0.
    bool readNext(Buffer& grain, __int64& grainIndex) {
        grain.setUsed(m_grainSizeBytes);
        bool isHole = false;
        int const count = m_source.readNext(grain.getData(), m_grainSizeBytes, isHole);
        if (count == 0)
            return false;
        grainIndex = m_grainIndex++;
        m_doneBytes += count;
        verifyFits(m_doneBytes);
        if (count < m_grainSizeBytes) {
            if (isHole)
                fillWithZeros(grain, 0, count);
            completeLastGrain(grain, grainIndex, count);
        } else if (isHole) {
            grain.setUsed(0);
        }
        return true;
    }

    __int64 getDoneBytes() const { return m_doneBytes; }

private:
    void completeLastGrain(Buffer& grain, __int64 grainIndex, int count) {
        __int64 const positionBytes = grainIndex * m_grainSizeBytes + count;
        auto const rest = static_cast<int>(
            std::min<__int64>(m_grainSizeBytes - count, m_diskSizeBytes - positionBytes));
        fillWithZeros(grain, count, m_grainSizeBytes);
        m_disk.read(positionBytes, grain.getData() + count, rest);
    }

    void verifyFits(__int64 imageBytes) const {
        if (imageBytes > m_diskSizeBytes) {
            throw yx::CIOError(yx::CIOError::NotAllowed, "The image is larger than the disk.",
                               yx::CProps()
                                   .add("imageSize", yx::toString(imageBytes))
                                   .add("diskSize", yx::toString(m_diskSizeBytes)),
                               nullptr);
        }
    }

    RawSource& m_source;
    SafeDisk& m_disk;
    int m_grainSizeBytes;
    __int64 m_diskSizeBytes;
    __int64 m_grainIndex = 0;
    __int64 m_doneBytes = 0;
};

/// How many bytes of a grain lie in the disk.
int bytesInDisk(SafeDisk& disk, __int64 grainIndex) {
    return static_cast<int>(std::min(disk.getGrainSizeBytes(),
                                     disk.getSizeBytes() - grainIndex * disk.getGrainSizeBytes()));
}

/// Stores a plain grain of a disk that stores plain grains, or a part of one.
void storePlainGrain(SafeDisk& disk, __int64 grainIndex, Buffer const& grain) {
    if (isZero(grain))
        disk.writeZeros(grainIndex * disk.getGrainSizeBytes(), bytesInDisk(disk, grainIndex));
    else if (disk.isWholeGrain(grainIndex) && !disk.getDisk().getCompressed())
        disk.writePreparedGrain(grainIndex, grain);
    else
        disk.write(grainIndex * disk.getGrainSizeBytes(), grain.getData(),
                   bytesInDisk(disk, grainIndex));
}

/// Whether the disk reads as `grain` there already.
bool holdsEqualGrain(SafeDisk& disk, __int64 grainIndex, Buffer const& grain, Buffer& scratch) {
    int const bytes = bytesInDisk(disk, grainIndex);
    scratch.setUsed(grain.getUsed());
    disk.read(grainIndex * disk.getGrainSizeBytes(), scratch.getData(), bytes);
    return std::memcmp(scratch.getData(), grain.getData(), static_cast<std::size_t>(bytes)) == 0;
}

/// Imports on one thread: into a plain disk there is nothing to compute, and a child disk is
/// compared with its parent, which only the disk's own thread may read.
void importDirectly(RawSource& source, SafeDisk& disk, Ticker& ticker) {
    ImageReader reader(source, disk);
    Buffer grain;
    Buffer scratch;
    __int64 grainIndex = 0;
    while (reader.readNext(grain, grainIndex)) {
        if (grain.getUsed() == 0)
            disk.writeZeros(grainIndex * disk.getGrainSizeBytes(), bytesInDisk(disk, grainIndex));
        else if (!disk.hasParent() || !holdsEqualGrain(disk, grainIndex, grain, scratch))
            storePlainGrain(disk, grainIndex, grain);
        ticker.tick(reader.getDoneBytes());
    }
}

void importCompressed(RawSource& source, SafeDisk& disk, int threads, Ticker& ticker) {
    Preparers preparers(disk, threads);
    GrainPipeline pipeline(threads, GrainPipeline::calcItemCount(disk.getGrainSizeBytes(), threads),
                           [&](Item& item, int worker) {
                               if (item.input->getUsed() > 0 && !isZero(*item.input)) {
                                   item.result = preparers.of(worker).prepareGrainData(
                                       item.input.get(), item.grainIndex, item.aux1.get());
                               }
                           });
    ImageReader reader(source, disk);
    pump(
        pipeline, [&](Item& item) { return reader.readNext(*item.input, item.grainIndex); },
        [&](Item& item) {
            if (!item.result)
                disk.writeZeros(item.grainIndex * disk.getGrainSizeBytes(),
                                bytesInDisk(disk, item.grainIndex));
            else if (disk.isWholeGrain(item.grainIndex))
                disk.writePreparedGrain(item.grainIndex, *item.result);
            else
                storePlainGrain(disk, item.grainIndex, *item.input);
            ticker.tick(item.grainIndex * disk.getGrainSizeBytes());
        });
}

/// Reads a plain grain, or what the disk has of it.
void readPlainGrain(SafeDisk& disk, __int64 grainIndex, Buffer& grain) {
    int const bytes = bytesInDisk(disk, grainIndex);
    grain.setUsed(bytes);
    disk.read(grainIndex * disk.getGrainSizeBytes(), grain.getData(), bytes);
}

/// Finds the next written grain from `grainIndex` on; the grain count if there is none.
__int64 findWrittenGrain(SafeDisk& disk, __int64 grainIndex, Ticker& ticker) {
    while (grainIndex < disk.getGrainCount() && !disk.isGrainWritten(grainIndex)) {
        ++grainIndex;
        ticker.tick(grainIndex * disk.getGrainSizeBytes());
    }
    return grainIndex;
}

/// Reads the written grains of a disk in order, in prepared form where that can be.
class GrainReader {
public:
    GrainReader(SafeDisk& disk, Ticker& ticker) : m_disk(disk), m_ticker(ticker) {}

    /// `prepared` tells the form of `grain`.
    bool readNext(Buffer& grain, __int64& grainIndex, bool& prepared) {
        m_next = findWrittenGrain(m_disk, m_next, m_ticker);
        if (m_next >= m_disk.getGrainCount())
            return false;
        grainIndex = m_next++;
        prepared = m_disk.tryReadPreparedGrain(grainIndex, grain);
        if (!prepared)
            readPlainGrain(m_disk, grainIndex, grain);
        return true;
    }

private:
    SafeDisk& m_disk;
    Ticker& m_ticker;
    __int64 m_next = 0;
};

/// Turns what a `GrainReader` gave into plain bytes.
class Unpreparer {
public:
    Unpreparer(SafeDisk& disk, int threads) : m_preparers(disk, threads) {}

    yx::P<Buffer> run(yx::P<Buffer> const& grain, bool prepared, yx::P<Buffer> const& aux,
                      int worker) {
        return prepared ? m_preparers.of(worker).unprepareGrainData(grain.get(), aux.get()) : grain;
    }

private:
    Preparers m_preparers;
};

/// Writes the grains of a disk to an image, with zeros between them.
class ImageWriter {
public:
    ImageWriter(SafeDisk& disk, RawTarget& target)
        : m_target(target),
          m_grainSizeBytes(disk.getGrainSizeBytes()),
          m_diskSizeBytes(disk.getSizeBytes()) {}

    /// Comes before the first `writeEarly`; changes nothing when called again.
    void beginEarly() {
        if (!m_hasBegun)
            m_canWriteEarly = m_target.beginWritingAnywhere();
        m_hasBegun = true;
    }

    /// Writes a grain before its turn, where the image is no pipe. May be called on several threads.
    void writeEarly(__int64 grainIndex, Buffer const& grain) const {
        if (m_canWriteEarly)
            m_target.writeAt(startOf(grainIndex), grain.getData(), bytesOf(grainIndex));
    }

    /// Writes a grain in its turn. Null is a grain of zeros.
    void write(__int64 grainIndex, Buffer const* grain) {
        skipTo(grainIndex);
        if (grain)
            m_target.write(grain->getData(), bytesOf(grainIndex));
        else
            m_target.writeZeros(bytesOf(grainIndex));
        m_doneBytes += bytesOf(grainIndex);
    }

    /// The turn of a grain for which `writeEarly` was called; null is one of zeros, for which it was
    /// not.
    void writeLate(__int64 grainIndex, Buffer const* grain) {
        if (!grain || !m_canWriteEarly) {
            write(grainIndex, grain);
            return;
        }
        skipTo(grainIndex);
        m_target.passWritten(bytesOf(grainIndex));
        m_doneBytes += bytesOf(grainIndex);
    }

    void finish() {
        m_target.writeZeros(m_diskSizeBytes - m_doneBytes);
        m_target.finish();
    }

private:
    __int64 startOf(__int64 grainIndex) const { return grainIndex * m_grainSizeBytes; }

    int bytesOf(__int64 grainIndex) const {
        return static_cast<int>(std::min(m_grainSizeBytes, m_diskSizeBytes - startOf(grainIndex)));
    }

    void skipTo(__int64 grainIndex) {
        m_target.writeZeros(startOf(grainIndex) - m_doneBytes);
        m_doneBytes = startOf(grainIndex);
    }

    RawTarget& m_target;
    __int64 m_grainSizeBytes;
    __int64 m_diskSizeBytes;
    bool m_hasBegun = false;
    bool m_canWriteEarly = false;
    __int64 m_doneBytes = 0;
};

void exportPlain(SafeDisk& disk, ImageWriter& writer, Ticker& ticker) {
    GrainReader reader(disk, ticker);
    Buffer grain;
    __int64 grainIndex = 0;
    bool prepared = false;
    while (reader.readNext(grain, grainIndex, prepared)) {
        writer.write(grainIndex, isZero(grain) ? nullptr : &grain);
        ticker.tick(grainIndex * disk.getGrainSizeBytes());
    }
}

void exportCompressed(SafeDisk& disk, ImageWriter& writer, int threads, Ticker& ticker) {
    Unpreparer unpreparer(disk, threads);
    GrainPipeline pipeline(threads, GrainPipeline::calcItemCount(disk.getGrainSizeBytes(), threads),
                           [&](Item& item, int worker) {
                               yx::P<Buffer> const plain = unpreparer.run(
                                   item.input, item.inputIsPrepared, item.aux1, worker);
                               if (isZero(*plain))
                                   return;
                               // To write takes about as long as to decode.
                               writer.writeEarly(item.grainIndex, *plain);
                               item.result = plain;
                           });
    GrainReader reader(disk, ticker);
    pump(
        pipeline,
        [&](Item& item) {
            if (!reader.readNext(*item.input, item.grainIndex, item.inputIsPrepared))
                return false;
            writer.beginEarly();
            return true;
        },
        [&](Item& item) {
            writer.writeLate(item.grainIndex, item.result.get());
            ticker.tick(item.grainIndex * disk.getGrainSizeBytes());
        });
}

/// Converts between disks whose grains have one size.
void convertGrains(SafeDisk& from, SafeDisk& to, int threads, Ticker& ticker) {
    bool const fromCompressed = from.getDisk().getCompressed();
    bool const toCompressed = to.getDisk().getCompressed();
    Unpreparer unpreparer(from, threads);
    Preparers preparers(to, threads);
    GrainPipeline pipeline(threads, GrainPipeline::calcItemCount(from.getGrainSizeBytes(), threads),
                           [&](Item& item, int worker) {
                               if (item.inputIsPrepared && fromCompressed && toCompressed) {
                                   // Readers ignore the index in a record, so it may be wrong.
                                   preparers.of(worker).patchGrainIndexInPreparedGrainData(
                                       *item.input, item.grainIndex);
                                   item.result = item.input;
                                   return;
                               }
                               yx::P<Buffer> const plain = unpreparer.run(
                                   item.input, item.inputIsPrepared, item.aux1, worker);
                               if (!isZero(*plain))
                                   item.result = preparers.of(worker).prepareGrainData(
                                       plain.get(), item.grainIndex, item.aux2.get());
                           });
    GrainReader reader(from, ticker);
    pump(
        pipeline,
        [&](Item& item) {
            return reader.readNext(*item.input, item.grainIndex, item.inputIsPrepared);
        },
        [&](Item& item) {
            // A disk that is larger has room for the whole of the other one's last grain.
            if (item.result && to.isWholeGrain(item.grainIndex))
                to.writePreparedGrain(item.grainIndex, *item.result);
            else if (item.result)
                to.write(item.grainIndex * to.getGrainSizeBytes(), item.input->getData(),
                         bytesInDisk(to, item.grainIndex));
            ticker.tick(item.grainIndex * from.getGrainSizeBytes());
        });
}

/// Converts between disks of different grain sizes, by plain bytes.
void convertBytes(SafeDisk& from, SafeDisk& to, Ticker& ticker) {
    Buffer grain;
    for (__int64 index = 0; index < from.getGrainCount(); ++index) {
        ticker.tick(index * from.getGrainSizeBytes());
        if (!from.isGrainWritten(index))
            continue;
        readPlainGrain(from, index, grain);
        if (!isZero(grain))
            to.write(index * from.getGrainSizeBytes(), grain.getData(), grain.getUsed());
    }
}

} // namespace

void importRaw(RawSource& source, SafeDisk& disk, WorkOptions const& options) {
    Ticker ticker(options, source.getLength());
    if (disk.getDisk().getCompressed() && !disk.hasParent())
        importCompressed(source, disk, countThreads(options), ticker);
    else
        importDirectly(source, disk, ticker);
    disk.flush();
    ticker.finish(source.getPosition());
}

void exportRaw(SafeDisk& disk, RawTarget& target, WorkOptions const& options) {
    Ticker ticker(options, disk.getSizeBytes());
    ImageWriter writer(disk, target);
    if (disk.getDisk().getCompressed())
        exportCompressed(disk, writer, countThreads(options), ticker);
    else
        exportPlain(disk, writer, ticker);
    writer.finish();
    ticker.finish(disk.getSizeBytes());
}

void convertDisk(SafeDisk& from, SafeDisk& to, WorkOptions const& options) {
    if (to.getSizeBytes() < from.getSizeBytes()) {
        throw yx::CIOError(yx::CIOError::NotAllowed, "The target disk is too small.",
                           yx::CProps()
                               .add("sourceSize", yx::toString(from.getSizeBytes()))
                               .add("targetSize", yx::toString(to.getSizeBytes())),
                           nullptr);
    }
    Ticker ticker(options, from.getSizeBytes());
    if (from.getGrainSizeBytes() == to.getGrainSizeBytes())
        convertGrains(from, to, countThreads(options), ticker);
    else
        convertBytes(from, to, ticker);
    to.flush();
    ticker.finish(from.getSizeBytes());
}

void makeIndependentOfParent(SafeDisk& disk, WorkOptions const& options) {
    Ticker ticker(options, disk.getSizeBytes());
    for (__int64 index = 0; index < disk.getGrainCount(); ++index) {
        disk.makeGrainIndependentOfParent(index);
        ticker.tick(index * disk.getGrainSizeBytes());
    }
    disk.flush();
    ticker.finish(disk.getSizeBytes());
}

} // namespace kelm::host

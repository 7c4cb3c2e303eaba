#include "tests/soak/program/worker.h"

#include <algorithm>

#include <unistd.h>

#include "host/check/disk_check.h"
#include "host/disk/busy_wait.h"

namespace soak {

namespace {

constexpr int kMaxRangeSectors = 400;
constexpr int kGrainBytes = kGrainSectors * kSectorSizeBytes;

__int64 toBytes(int sectors) {
    return __int64{sectors} * kSectorSizeBytes;
}

} // namespace

Worker::Worker(SharedModel& model, Counts& counts, Settings const& settings)
    : m_model(model),
      m_counts(counts),
      m_settings(settings),
      m_random(settings.seed),
      m_files(yx::makeObject<yx::CNativeFileSystem>(settings.flush)),
      m_buffer(static_cast<std::size_t>(toBytes(kMaxRangeSectors))) {}

int Worker::draw(int below) {
    return static_cast<int>(m_random() % static_cast<unsigned int>(below));
}

void Worker::guard(std::function<void()> const& body) {
    try {
        body();
    } catch (...) {
        m_model.killed[static_cast<std::size_t>(m_settings.process)] = true;
        throw;
    }
}

void Worker::run() {
    guard([this] { besiege(); });
}

void Worker::besiege() {
    constexpr int kMaxPauseMicroseconds = 3000;
    constexpr int kWriterPercent = 75;
    while (!m_model.isStopping) {
        bool const isWriter = draw(100) < kWriterPercent;
        if (!tryOpen(isWriter ? yx::IIOStream::ReadWrite : yx::IIOStream::ReadOnly)) {
            ++m_counts.refusals;
            ::usleep(static_cast<useconds_t>(draw(kMaxPauseMicroseconds)));
            continue;
        }
        if (isWriter)
            runWriter();
        else
            runReader();
    }
}

void Worker::runOnceAlone() {
    guard([this] {
        if (!tryOpen(yx::IIOStream::ReadWrite))
            throw Violation("a disk that nobody uses is refused");
        runWriter();
        compareWithChecker();
    });
}

bool Worker::tryOpen(yx::IIOStream::Access access) {
    try {
        m_disk = std::make_unique<kelm::host::SafeDisk>(m_files.get(), m_settings.uri, access,
                                                        m_settings.kind.password, 1);
        return true;
    } catch (yx::CLockFileError const& error) {
        if (!kelm::host::isInUse(error))
            throw;
        return false;
    }
}

void Worker::runReader() {
    constexpr int kMaxReadGrains = 24;
    ++m_counts.readerOpenings;
    int const writer = m_model.writer;
    if (writer != 0 && !m_model.killed[static_cast<std::size_t>(writer)])
        throw Violation("a disk is open for reading while another has it for writing");
    std::atomic<int>& place = m_model.readers[static_cast<std::size_t>(m_settings.slot)];
    place = m_settings.process;
    int const grains = draw(kMaxReadGrains);
    for (int i = 0; i < grains; ++i)
        compareGrain(draw(kGrainCount));
    if (draw(8) == 0)
        compareWithChecker();
    place = 0;
    m_disk.reset();
}

void Worker::runWriter() {
    constexpr int kMaxSteps = 60;
    ++m_counts.writerOpenings;
    enterAsWriter();
    if (m_model.pendingCount > 0)
        takeStock();
    if (draw(4) == 0)
        compareAll();
    int const steps = draw(kMaxSteps);
    for (int i = 0; i < steps; ++i)
        step();
    flush();
    leaveAsWriter();
}

void Worker::enterAsWriter() {
    int const former = m_model.writer.exchange(m_settings.process);
    if (former != 0 && !m_model.killed[static_cast<std::size_t>(former)])
        throw Violation("two processes have a disk open for writing");
    for (std::atomic<int> const& reader : m_model.readers) {
        int const process = reader;
        if (process != 0 && !m_model.killed[static_cast<std::size_t>(process)])
            throw Violation("a disk is open for writing while another has it for reading");
    }
    if (m_model.isChanging)
        m_model.wasBrokenOff = true;
    m_model.isChanging = true;
}

void Worker::leaveAsWriter() {
    // While the lock is still held: behind it, these belong to the next one.
    m_model.isChanging = false;
    m_model.writer = 0;
    m_disk.reset();
}

void Worker::takeStock() {
    for (int grain = 0; grain < kGrainCount; ++grain)
        takeStockOfGrain(grain);
    m_disk->flush();
    m_model.pendingCount = 0;
}

void Worker::takeStockOfGrain(int grain) {
    int const first = grain * kGrainSectors;
    try {
        m_disk->read(toBytes(first), m_buffer.data(), kGrainBytes);
        for (int i = 0; i < kGrainSectors; ++i) {
            m_model.flushed[static_cast<std::size_t>(first + i)] =
                m_model.identify(m_buffer.data() + toBytes(i), first + i);
        }
    } catch (yx::CIOError const& error) {
        if (!m_model.isGrainPending(grain) || error.getIOCode() != yx::CIOError::CorruptData)
            throw;
        mendGrain(grain);
    }
}

/// A compressed grain that was rewritten in place when its writer was killed. It is lost, as it may
/// be.
void Worker::mendGrain(int grain) {
    ++m_counts.brokenOffRewrites;
    int const first = grain * kGrainSectors;
    yx::TBuffer<unsigned char> plain(kGrainBytes, -1);
    yx::initMemory(plain.getData(), 0, kGrainBytes);
    yx::TBuffer<unsigned char> aux;
    m_disk->writePreparedGrain(
        grain, *m_disk->getDisk().createDataPreparer()->prepareGrainData(&plain, grain, &aux));
    std::fill_n(m_model.flushed.begin() + first, kGrainSectors, Stamp{0});
}

void Worker::compareGrain(int grain) {
    int const first = grain * kGrainSectors;
    try {
        m_disk->read(toBytes(first), m_buffer.data(), kGrainBytes);
    } catch (yx::CIOError const& error) {
        if (!m_model.isGrainPending(grain) || error.getIOCode() != yx::CIOError::CorruptData)
            throw;
        return;
    }
    for (int i = 0; i < kGrainSectors; ++i)
        m_model.identify(m_buffer.data() + toBytes(i), first + i);
    m_counts.sectorsCompared += kGrainSectors;
}

void Worker::compareAll() {
    for (int grain = 0; grain < kGrainCount; ++grain)
        compareGrain(grain);
}

void Worker::compareWithChecker() {
    // A writer that was killed may leave table copies that differ, which nobody mends before they
    // change.
    if (m_model.isChanging || m_model.wasBrokenOff)
        return;
    std::string findings;
    kelm::host::checkDisk(m_files.get(), m_settings.uri, m_settings.kind.password, {},
                          [&](yx::CURI const& file, std::string const& text) {
                              findings += "\n" + file.getName().toStdString() + ": " + text;
                          });
    if (!findings.empty())
        throw Violation("the checker finds fault with a disk that was closed:" + findings);
    ++m_counts.cleanChecks;
}

void Worker::step() {
    int const choice = draw(100);
    if (choice < 40)
        write();
    else if (choice < 50)
        writeZeros();
    else if (choice < 60)
        writePrepared();
    else if (choice < 88)
        read();
    else if (choice < 94)
        flush();
    else if (choice < 98 && m_settings.kind.hasParent)
        m_disk->makeGrainIndependentOfParent(draw(kGrainCount));
    else
        m_disk->getDisk().gatherSpaceInfo();
}

void Worker::drawRange(int& firstSector, int& sectorCount) {
    firstSector = draw(kSectorCount);
    sectorCount = draw(3) == 0 ? kGrainSectors : draw(kMaxRangeSectors) + 1;
    if (draw(2) == 0)
        firstSector -= firstSector % kGrainSectors;
    sectorCount = std::min(sectorCount, kSectorCount - firstSector);
}

Stamp Worker::drawStamp() {
    return draw(5) == 0 ? Stamp{0} : ++m_model.lastStamp;
}

void Worker::announce(int firstSector, int sectorCount, Stamp stamp) {
    if (m_model.pendingCount == static_cast<int>(m_model.pending.size()))
        flush();
    int const index = m_model.pendingCount;
    m_model.pending[static_cast<std::size_t>(index)] = {firstSector, sectorCount, stamp};
    m_model.pendingCount = index + 1;
    ++m_counts.writes;
}

void Worker::write() {
    int first = 0;
    int count = 0;
    drawRange(first, count);
    Stamp const stamp = drawStamp();
    fillSectors(m_buffer.data(), first, count, stamp);
    announce(first, count, stamp);
    m_disk->write(toBytes(first), m_buffer.data(), static_cast<int>(toBytes(count)));
}

void Worker::writeZeros() {
    int first = 0;
    int count = 0;
    drawRange(first, count);
    announce(first, count, 0);
    m_disk->writeZeros(toBytes(first), toBytes(count));
}

void Worker::writePrepared() {
    int const grain = draw(kGrainCount);
    int const first = grain * kGrainSectors;
    Stamp const stamp = drawStamp();
    yx::TBuffer<unsigned char> plain(kGrainBytes, -1);
    fillSectors(plain.getData(), first, kGrainSectors, stamp);
    yx::TBuffer<unsigned char> aux;
    announce(first, kGrainSectors, stamp);
    m_disk->writePreparedGrain(
        grain, *m_disk->getDisk().createDataPreparer()->prepareGrainData(&plain, grain, &aux));
}

void Worker::read() {
    int first = 0;
    int count = 0;
    drawRange(first, count);
    m_disk->read(toBytes(first), m_buffer.data(), static_cast<int>(toBytes(count)));
    for (int i = 0; i < count; ++i) {
        if (!holdsStamp(m_buffer.data() + toBytes(i), first + i, m_model.expectedStamp(first + i)))
            throw Violation("sector " + std::to_string(first + i) + " does not read as written");
    }
    m_counts.sectorsCompared += count;
}

void Worker::flush() {
    m_disk->flush();
    m_model.settle();
    ++m_counts.flushes;
}

} // namespace soak

#include "tests/crash/crash_history.h"

#include <algorithm>

namespace test_support {

CrashDisk::CrashDisk(Way way, CrashKind const& kind, yx::IFileSystem* files,
                     yx::IIOStream::Access access) {
    if (way == Way::Safe) {
        m_safe =
            std::make_unique<SafeDisk>(files, crashURI(kMainFile), access, kind.disk.password, 1);
    } else {
        m_bare = yx::makeObject<kelm::CVMDKDisk>(files, crashURI(kMainFile), access,
                                                 kind.disk.password, 1, nullptr, nullptr);
        // A content ID of another length moves all that follows it in the descriptor, and a power
        // cut between two sectors of it would lose the disk.
        m_bare->setContentIDUpdatesEnabled(false);
    }
    m_preparer = disk().createDataPreparer();
}

void CrashDisk::read(__int64 position, void* target, int bytes) {
    disk().seek(position);
    disk().read(target, bytes);
}

void CrashDisk::write(__int64 position, Bytes const& bytes) {
    auto const size = static_cast<int>(bytes.size());
    if (m_safe) {
        m_safe->write(position, bytes.data(), size);
    } else {
        m_bare->seek(position);
        m_bare->write(bytes.data(), size);
    }
}

void CrashDisk::writeZeros(__int64 position, int bytes) {
    if (m_safe)
        m_safe->writeZeros(position, bytes);
    else
        write(position, zeros(static_cast<std::size_t>(bytes)));
}

void CrashDisk::writePrepared(int grain, Bytes const& content) {
    yx::P<Buffer> const plain = yx::makeObject<Buffer>(static_cast<int>(content.size()), -1);
    std::copy(content.begin(), content.end(), plain->getData());
    yx::P<Buffer> const aux = yx::makeObject<Buffer>();
    yx::P<Buffer> const prepared = m_preparer->prepareGrainData(plain.get(), grain, aux.get());
    if (m_safe) {
        m_safe->writePreparedGrain(grain, *prepared);
    } else {
        m_bare->seek(grain * kGrainBytes);
        m_bare->writePreparedGrainData(*prepared);
    }
}

void CrashDisk::makeIndependent(int grain) {
    if (m_safe)
        m_safe->makeGrainIndependentOfParent(grain);
    else
        m_bare->makeGrainIndependentOfParent(grain);
}

bool CrashDisk::isWrittenHere(int grain) {
    disk().seek(grain * kGrainBytes);
    return disk().isGrainWrittenAndIndependentOfParent();
}

void CrashDisk::flush() {
    if (m_safe)
        m_safe->flush();
    else
        m_bare->flushChanges();
}

CrashHistory::CrashHistory(Way way, CrashKind const& kind, RecordingFileSystem& files,
                           unsigned int seed, int steps)
    : m_way(way), m_kind(kind), m_files(files), m_random(seed) {
    for (int grain = 0; grain < kGrainCount; ++grain)
        m_content.push_back(std::make_shared<Bytes const>(grainBelow(kind, grain)));
    runStep(way == Way::Safe ? &CrashHistory::createDisk : &CrashHistory::openDisk, true);
    chooseGrains();
    using Operation = void (CrashHistory::*)();
    constexpr Operation kOperations[] = {
        &CrashHistory::writeSome,     &CrashHistory::writeSome,  &CrashHistory::writeGrain,
        &CrashHistory::writeGrain,    &CrashHistory::writeZeros, &CrashHistory::writePrepared,
        &CrashHistory::writePrepared, &CrashHistory::readGrain,  &CrashHistory::makeIndependent,
    };
    for (int step = 0; step < steps; ++step) {
        if (draw(5) == 0)
            runStep(draw(4) == 0 ? &CrashHistory::reopen : &CrashHistory::flush, true);
        else
            runStep(kOperations[draw(std::size(kOperations))], false);
    }
    runStep(&CrashHistory::flush, true);
    m_disk.reset();
}

void CrashHistory::chooseGrains() {
    // Neighbours, both sides of an extent's end, and the last grain.
    std::vector<int> const starts = extentStarts(&m_files);
    m_grains = {0, 1, 2, 5, kGrainCount - 1};
    if (starts.size() > 2) {
        m_grains.push_back(starts[1] - 1);
        m_grains.push_back(starts[1]);
    } else {
        m_grains.push_back(6);
        m_grains.push_back(9);
    }
}

void CrashHistory::runStep(void (CrashHistory::*operation)(), bool isFlush) {
    m_steps.push_back({m_files.entries().size(), 0, isFlush, {}});
    (this->*operation)();
    m_steps.back().endOperation = m_files.entries().size();
}

void CrashHistory::change(int grain, Bytes content) {
    std::shared_ptr<Bytes const> const shared = std::make_shared<Bytes const>(std::move(content));
    m_content[static_cast<std::size_t>(grain)] = shared;
    m_steps.back().changes.push_back({grain, shared});
}

void CrashHistory::changeRange(__int64 position, Bytes const& bytes) {
    for (std::size_t done = 0; done < bytes.size();) {
        __int64 const at = position + static_cast<__int64>(done);
        int const grain = static_cast<int>(at / kGrainBytes);
        auto const inGrain = static_cast<std::size_t>(at % kGrainBytes);
        std::size_t const step =
            std::min(bytes.size() - done, static_cast<std::size_t>(kGrainBytes) - inGrain);
        Bytes content = contentOf(grain);
        std::copy_n(bytes.begin() + static_cast<long>(done), step,
                    content.begin() + static_cast<long>(inGrain));
        change(grain, std::move(content));
        done += step;
    }
}

Bytes CrashHistory::drawBytes(int size) {
    // Made once, since making bytes takes longer than writing them.
    static constexpr std::size_t kPoolBytes = 600000;
    static Bytes const kNoise = pattern(kPoolBytes, 1);
    static Bytes const kText = textPattern(kPoolBytes, 2);
    auto const start = static_cast<std::size_t>(draw(static_cast<int>(kPoolBytes) - size));
    return slice(draw(2) == 0 ? kText : kNoise, start, static_cast<std::size_t>(size));
}

void CrashHistory::createDisk() {
    yx::P<FileGuard> const guard = yx::makeObject<FileGuard>(&m_files, false);
    guard->keep();
    SafeDisk::create(guard.get(), crashURI(kMainFile), requestFor(m_kind));
    stretchPasswordLess(m_kind, &m_files);
    m_disk = std::make_unique<CrashDisk>(m_way, m_kind, &m_files, kReadWrite);
}

void CrashHistory::openDisk() {
    m_disk = std::make_unique<CrashDisk>(m_way, m_kind, &m_files, kReadWrite);
}

void CrashHistory::writeSome() {
    int const size = 1 + draw(draw(3) == 0 ? 80000 : 3000);
    __int64 const position =
        std::min<__int64>(drawGrain() * kGrainBytes + draw(kGrainBytes), kSmallestDiskBytes - size);
    Bytes const bytes = drawBytes(size);
    changeRange(position, bytes);
    m_disk->write(position, bytes);
}

void CrashHistory::writeGrain() {
    int const grain = drawGrain();
    Bytes const bytes = drawBytes(kGrainBytes);
    change(grain, bytes);
    m_disk->write(grain * kGrainBytes, bytes);
}

void CrashHistory::writeZeros() {
    int const grain = drawGrain();
    if (m_way == Way::Bare && m_kind.isChild) {
        // A child that has no place of its own for the grain would go on to show its parent's.
        m_disk->flush();
        if (!m_disk->isWrittenHere(grain))
            return;
    }
    int const offset = draw(2) * draw(kGrainBytes);
    Bytes const bytes = zeros(static_cast<std::size_t>(kGrainBytes - offset));
    changeRange(grain * kGrainBytes + offset, bytes);
    m_disk->writeZeros(grain * kGrainBytes + offset, static_cast<int>(bytes.size()));
}

void CrashHistory::writePrepared() {
    int const grain = drawGrain();
    Bytes const bytes = drawBytes(kGrainBytes);
    change(grain, bytes);
    m_disk->writePrepared(grain, bytes);
}

void CrashHistory::readGrain() {
    Bytes bytes(100);
    m_disk->read(drawGrain() * kGrainBytes, bytes.data(), static_cast<int>(bytes.size()));
}

void CrashHistory::makeIndependent() {
    int const grain = drawGrain();
    if (m_way == Way::Bare) {
        // Without a parent, over a parent that cannot hand out its records, between enciphered
        // compressed disks, and with unwritten changes, it is a trap.
        if (!m_kind.isChild || m_kind.hasPlainParent ||
            (m_kind.isEncrypted() && m_kind.disk.compressed))
            return;
        m_disk->flush();
    }
    change(grain, contentOf(grain));
    m_disk->makeIndependent(grain);
}

void CrashHistory::flush() {
    m_disk->flush();
}

void CrashHistory::reopen() {
    m_disk->flush();
    m_disk.reset();
    openDisk();
}

} // namespace test_support
